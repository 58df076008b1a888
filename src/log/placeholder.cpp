// Placeholder definitions until the real ones land; deleted by the log work.
#include "log/log.h"

#include <cstdlib>

namespace korvel {
std::atomic<bool> g_logenabled{false};
std::atomic<int32_t> g_loglevel{0};
std::mutex mLock;
int log_print(int, const char*, ...) { return 0; }
int log_warn(const char*, ...) { return 0; }
void log_fatal(int code, const char*, ...) { std::exit(code); }
int log_write(int, const char*, const char*, va_list) { return 0; }
}  // namespace korvel

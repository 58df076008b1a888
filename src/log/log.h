// Trace output switched by <sd root>/krv_log.conf (re-read on every call), and always-on
// warnings and fatal errors on standard error. Usable from every thread.
#pragma once

#include <atomic>
#include <cstdarg>
#include <cstdint>

#include "core/mutex.h"

namespace korvel {

extern std::atomic<bool> g_logenabled;
extern std::atomic<int32_t> g_loglevel;
extern Mutex mLock;  // guards reading the switch file; taken after sendMutex, never before

constexpr int LOG_CODE_ABORT = static_cast<int>(0xAABBCCDD);

int log_print(int level, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
int log_warn(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
[[noreturn]] void log_fatal(int code, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
int log_write(int level, const char* errtext, const char* fmt, va_list args)
    __attribute__((format(printf, 3, 0)));

}  // namespace korvel

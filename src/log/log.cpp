// Trace output switched by the log switch file on the card, warnings and fatal errors on
// standard error. Called from every thread; mLock only guards reading the switch file.
#include "log/log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/config.h"

namespace korvel {

std::atomic<bool> g_logenabled{false};
std::atomic<int32_t> g_loglevel{0};
Mutex mLock;

namespace {

constexpr size_t LOG_TEXT_SIZE = 1024;
constexpr size_t LOG_SWITCH_BYTES = 10;
constexpr size_t ERRNO_SUFFIX_LIMIT = 1020;

const char* level_tag(int level) {
    switch (level) {
        case 0:
            return "debug";
        case 1:
            return "msg";
        case 2:
            return "warn";
        case 3:
            return "err";
        default:
            return "???";
    }
}

// strerror is not thread-safe; every thread logs, so each keeps its own copy.
void errno_text(int err, char* out, size_t cap) {
    const char* t = strerror_r(err, out, cap);  // GNU form: may return a static string
    if (t != out) {
        snprintf(out, cap, "%s", t);
    }
}

// Re-reads the switch file; false when it exists but cannot be opened. Anything but a
// regular file (a link, a FIFO that would block the open) counts as no file: every thread
// logs, so none may wait here or read something off the card.
bool read_switch_file(bool* present) {
    char path[LOG_TEXT_SIZE];
    snprintf(path, sizeof path, "%s%s", active_sd_root(), LOG_CONF_NAME);
    int fd = open(path, O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
    struct stat st;
    if (fd >= 0 && (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode))) {
        close(fd);
        *present = false;
        return true;
    }
    *present = fd >= 0 || (errno != ENOENT && errno != ELOOP && errno != ENOTDIR);
    if (fd < 0) {
        if (*present) {
            puts("read open conf failed.");
        }
        return !*present;
    }
    char text[LOG_SWITCH_BYTES + 1] = {};
    {
        MutexLock guard(mLock);
        ssize_t n = read(fd, text, LOG_SWITCH_BYTES);
        text[n > 0 ? n : 0] = '\0';
    }
    close(fd);
    int enable = 0;
    int threshold = 0;
    sscanf(text, "%d,%d\n", &enable, &threshold);
    g_loglevel = threshold;
    g_logenabled = enable == 1;
    return true;
}

}  // namespace

int log_print(int level, const char* fmt, ...) {
    bool present = false;
    if (!read_switch_file(&present)) {
        return -1;
    }
    if (!present || !g_logenabled || g_loglevel >= level) {
        return 0;
    }
    char text[LOG_TEXT_SIZE];
    va_list args;
    va_start(args, fmt);
    vsnprintf(text, sizeof text, fmt, args);
    va_end(args);
    printf("%s", text);
    return 0;
}

int log_write(int level, const char* errtext, const char* fmt, va_list args) {
    char text[LOG_TEXT_SIZE];
    text[0] = '\0';
    if (fmt != nullptr) {
        vsnprintf(text, sizeof text, fmt, args);
    }
    size_t len = strlen(text);
    if (errtext != nullptr && len <= ERRNO_SUFFIX_LIMIT) {
        snprintf(text + len, sizeof text - len, ": %s", errtext);
    }
    return fprintf(stderr, "[Quillmere-%s] %s\n", level_tag(level), text);
}

int log_warn(const char* fmt, ...) {
    char err[256];
    errno_text(errno, err, sizeof err);
    va_list args;
    va_start(args, fmt);
    int r = log_write(2, err, fmt, args);
    va_end(args);
    return r;
}

void log_fatal(int code, const char* fmt, ...) {
    char err[256];
    errno_text(errno, err, sizeof err);
    va_list args;
    va_start(args, fmt);
    log_write(3, err, fmt, args);
    va_end(args);
    if (code == LOG_CODE_ABORT) {
        abort();
    }
    exit(code);
}

}  // namespace korvel

// Resolution beneath the card root. Where the kernel has openat2 it resolves the whole name
// with RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS; older kernels answer ENOSYS, and from then on
// every name is walked one component at a time with O_NOFOLLOW.
#include "core/card_fs.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>
#include <utility>

#include "core/config.h"
#include "core/scoped.h"

#if __has_include(<linux/openat2.h>)
#include <linux/openat2.h>
#endif

namespace korvel {

namespace {

constexpr int DIR_FLAGS = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr int FILE_FLAGS = O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC;

std::atomic<bool> g_forceWalk{false};
std::atomic<bool> g_kernelLacksOpenat2{false};

bool plain_component(const char* s, size_t n) {
    return n > 0 && n <= NAME_MAX && !(n == 1 && s[0] == '.') &&
           !(n == 2 && s[0] == '.' && s[1] == '.');
}

// The part of path below the card root when every component of it is a plain name; null
// when the path is off the card or climbs.
const char* below_root(const char* path) {
    const char* root = active_sd_root();
    size_t n = strlen(root);
    if (strncmp(path, root, n) != 0 || path[n] != '/') {
        return nullptr;
    }
    const char* rel = path + n + 1;
    for (const char* s = rel;;) {
        const char* slash = strchr(s, '/');
        size_t len = slash != nullptr ? size_t(slash - s) : strlen(s);
        if (!plain_component(s, len)) {
            return nullptr;
        }
        if (slash == nullptr) {
            return rel;
        }
        s = slash + 1;
    }
}

// -1 with errno ENOSYS when the kernel cannot resolve beneath a directory.
int open_by_kernel(int rootFd, const char* rel) {
#if defined(SYS_openat2) && defined(RESOLVE_BENEATH)
    struct open_how how;
    memset(&how, 0, sizeof how);
    how.flags = DIR_FLAGS;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
    return int(syscall(SYS_openat2, rootFd, rel, &how, sizeof how));
#else
    (void)rootFd;
    (void)rel;
    errno = ENOSYS;
    return -1;
#endif
}

// Components are plain names (checked by below_root), so no step can climb; O_NOFOLLOW
// refuses a link at every step.
int open_by_walk(int rootFd, const char* rel) {
    ScopedFd dir(fcntl(rootFd, F_DUPFD_CLOEXEC, 0));
    char name[NAME_MAX + 1];
    for (const char* s = rel; dir.get() >= 0;) {
        const char* slash = strchr(s, '/');
        size_t len = slash != nullptr ? size_t(slash - s) : strlen(s);
        memcpy(name, s, len);
        name[len] = '\0';
        ScopedFd next(openat(dir.get(), name, DIR_FLAGS));
        if (next.get() < 0 || slash == nullptr) {
            return next.release();
        }
        dir = std::move(next);
        s = slash + 1;
    }
    return -1;
}

int check_regular(int fd) {
    struct stat st;
    if (fd >= 0 && (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode))) {
        close(fd);
        errno = ENOENT;
        return -1;
    }
    return fd;
}

}  // namespace

int card_open_dir(const char* path) {
    // The card root itself is the mount point and is taken as it is.
    ScopedFd root(open(active_sd_root(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (root.get() < 0 || (path != nullptr && strcmp(path, active_sd_root()) == 0)) {
        return root.release();
    }
    const char* rel = path != nullptr ? below_root(path) : nullptr;
    if (rel == nullptr) {
        errno = EXDEV;
        return -1;
    }
    if (!g_forceWalk && !g_kernelLacksOpenat2) {
        // ENOSYS: an older kernel; EPERM: a sandbox that filters the call. The walk is as
        // safe, only a few calls longer.
        int fd = open_by_kernel(root.get(), rel);
        if (fd >= 0 || (errno != ENOSYS && errno != EPERM)) {
            return fd;
        }
        g_kernelLacksOpenat2 = true;
    }
    return open_by_walk(root.get(), rel);
}

int card_open_parent(const char* path, const char** leaf) {
    const char* slash = path != nullptr ? strrchr(path, '/') : nullptr;
    char dir[PATH_MAX];
    size_t len = slash != nullptr ? size_t(slash - path) : 0;
    if (slash == nullptr || len >= sizeof dir) {
        errno = EXDEV;
        return -1;
    }
    memcpy(dir, path, len);
    dir[len] = '\0';
    *leaf = slash + 1;
    return card_open_dir(dir);
}

bool is_regular_at(int dirFd, const char* name, struct stat* st) {
    struct stat local;
    struct stat* s = st != nullptr ? st : &local;
    if (dirFd < 0 || strchr(name, '/') != nullptr || !plain_component(name, strlen(name))) {
        return false;
    }
    return fstatat(dirFd, name, s, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(s->st_mode);
}

int open_regular_at(int dirFd, const char* name) {
    // Looked at before opening, so a FIFO or device is never opened at all; checked again
    // after, in case the name was replaced in between.
    if (!is_regular_at(dirFd, name)) {
        errno = ENOENT;
        return -1;
    }
    return check_regular(openat(dirFd, name, FILE_FLAGS));
}

int card_open_regular(const char* path) {
    const char* leaf = nullptr;
    ScopedFd dir(card_open_parent(path, &leaf));
    return dir.get() < 0 ? -1 : open_regular_at(dir.get(), leaf);
}

bool card_is_regular(const char* path) {
    const char* leaf = nullptr;
    ScopedFd dir(card_open_parent(path, &leaf));
    return dir.get() >= 0 && is_regular_at(dir.get(), leaf);
}

namespace testing_seam {
void force_component_walk(bool on) {
    g_forceWalk = on;
}
}  // namespace testing_seam

}  // namespace korvel

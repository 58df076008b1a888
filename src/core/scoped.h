// Move-only owners of a descriptor and of a mapping, for locals on paths with early
// returns. Long-lived fields (the event base's fileFd and mmap_base_addr) stay plain and
// are released by their owner's own function.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>

namespace korvel {

class ScopedFd {
public:
    ScopedFd() = default;
    explicit ScopedFd(int fd) : owned(fd) {}
    ~ScopedFd() { reset(); }
    ScopedFd(ScopedFd&& other) noexcept : owned(other.release()) {}
    ScopedFd& operator=(ScopedFd&& other) noexcept {
        if (this != &other) {
            reset(other.release());
        }
        return *this;
    }
    ScopedFd(const ScopedFd&) = delete;
    ScopedFd& operator=(const ScopedFd&) = delete;

    int get() const { return owned; }
    bool valid() const { return owned >= 0; }
    // Gives the descriptor to the caller; this owner then holds none.
    int release() {
        int fd = owned;
        owned = -1;
        return fd;
    }
    void reset(int fd = -1) {
        if (owned >= 0) {
            close(owned);
        }
        owned = fd;
    }

private:
    int owned = -1;
};

class ScopedMapping {
public:
    ScopedMapping() = default;
    // addr as mmap returned it; MAP_FAILED is held as no mapping.
    ScopedMapping(void* addr, size_t len)
        : base(addr == MAP_FAILED ? nullptr : addr), length(addr == MAP_FAILED ? 0 : len) {}
    ~ScopedMapping() { reset(); }
    ScopedMapping(ScopedMapping&& other) noexcept : base(other.base), length(other.length) {
        other.base = nullptr;
        other.length = 0;
    }
    ScopedMapping& operator=(ScopedMapping&& other) noexcept {
        if (this != &other) {
            reset();
            base = other.base;
            length = other.length;
            other.base = nullptr;
            other.length = 0;
        }
        return *this;
    }
    ScopedMapping(const ScopedMapping&) = delete;
    ScopedMapping& operator=(const ScopedMapping&) = delete;

    void* get() const { return base; }
    size_t size() const { return length; }
    bool valid() const { return base != nullptr; }
    void reset() {
        if (base != nullptr) {
            munmap(base, length);
        }
        base = nullptr;
        length = 0;
    }

private:
    void* base = nullptr;
    size_t length = 0;
};

}  // namespace korvel

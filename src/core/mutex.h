// A std::mutex that clang's thread-safety analysis can see (libstdc++'s is not annotated),
// and its scoped lock. Waits on a condition go through std::condition_variable_any.
#pragma once

#include <mutex>

#include "core/thread_annotations.h"

namespace korvel {

class CAPABILITY("mutex") Mutex {
public:
    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void lock() ACQUIRE() { impl.lock(); }
    void unlock() RELEASE() { impl.unlock(); }
    bool try_lock() TRY_ACQUIRE(true) { return impl.try_lock(); }

private:
    std::mutex impl;
};

// Marks a MutexLock that takes over a mutex the caller has already locked.
struct AdoptLock {};
constexpr AdoptLock ADOPT_LOCK{};

class SCOPED_CAPABILITY MutexLock {
public:
    explicit MutexLock(Mutex& m) ACQUIRE(m) : mu(m) { mu.lock(); }
    MutexLock(Mutex& m, AdoptLock) REQUIRES(m) : mu(m) {}
    ~MutexLock() RELEASE() { mu.unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

private:
    Mutex& mu;
};

}  // namespace korvel

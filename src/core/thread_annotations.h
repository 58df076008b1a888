// Lock annotations for clang's -Wthread-safety: which mutex guards a field, which a function
// needs or takes. They expand to nothing under GCC, which builds the camera's server.
#pragma once

#if defined(__clang__)
#define KORVEL_THREAD_ATTR(x) __attribute__((x))
#else
#define KORVEL_THREAD_ATTR(x)
#endif

#define CAPABILITY(name)          KORVEL_THREAD_ATTR(capability(name))
#define SCOPED_CAPABILITY         KORVEL_THREAD_ATTR(scoped_lockable)
#define GUARDED_BY(mu)            KORVEL_THREAD_ATTR(guarded_by(mu))
#define REQUIRES(...)             KORVEL_THREAD_ATTR(requires_capability(__VA_ARGS__))
#define ACQUIRE(...)              KORVEL_THREAD_ATTR(acquire_capability(__VA_ARGS__))
#define RELEASE(...)              KORVEL_THREAD_ATTR(release_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...)          KORVEL_THREAD_ATTR(try_acquire_capability(__VA_ARGS__))
#define EXCLUDES(...)             KORVEL_THREAD_ATTR(locks_excluded(__VA_ARGS__))
#define NO_THREAD_SAFETY_ANALYSIS KORVEL_THREAD_ATTR(no_thread_safety_analysis)

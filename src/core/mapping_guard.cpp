// The jump target is per thread: every worker streams its own app's mapping.
#include "core/mapping_guard.h"

#include <pthread.h>
#include <setjmp.h>
#include <signal.h>

#include <mutex>

#include "core/packet.h"

namespace korvel {

namespace {

thread_local sigjmp_buf* guardedRead = nullptr;
struct sigaction previousAction {};

void on_sigbus(int sig, siginfo_t* info, void* context) {
    if (guardedRead != nullptr) {
        siglongjmp(*guardedRead, 1);
    }
    // Not a guarded read: a real fault. Hand it back and let the access fault again.
    (void)sig;
    (void)info;
    (void)context;
    sigaction(SIGBUS, &previousAction, nullptr);
}

}  // namespace

void install_mapping_guard() {
    static std::once_flag once;
    std::call_once(once, [] {
        struct sigaction sa {};
        sa.sa_sigaction = on_sigbus;
        // SA_NODEFER: the handler leaves by siglongjmp, which does not restore the signal
        // mask (saving it would cost a system call per packet); SIGBUS should not be
        // blocked while the handler runs. Some runtimes block it anyway, so the fault path
        // unblocks it too.
        sa.sa_flags = SA_SIGINFO | SA_NODEFER;
        sigemptyset(&sa.sa_mask);
        sigaction(SIGBUS, &sa, &previousAction);
    });
}

bool crc32_guarded(uint32_t seed, const void* data, uint32_t len, uint32_t& crc) {
    sigjmp_buf jump;
    if (sigsetjmp(jump, 0) != 0) {
        guardedRead = nullptr;
        sigset_t bus;
        sigemptyset(&bus);
        sigaddset(&bus, SIGBUS);
        pthread_sigmask(SIG_UNBLOCK, &bus, nullptr);
        return false;
    }
    guardedRead = &jump;
    crc = crc32_calc(seed, data, len);
    guardedRead = nullptr;
    return true;
}

}  // namespace korvel

// The camera's capability file, sent in one burst through the app's mapped region.
// Main thread.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "client/event_base.h"
#include "core/config.h"
#include "log/log.h"
#include "transfer/burst.h"
#include "transfer/transfer_internal.h"

namespace korvel {

void CEventBase::process_cap_get(int fd) {
    if (!lock_region(regionMutex)) {
        log_print(1, "capability while streaming, refused\n");
        send_status(fd, MSG_CAPABILITY, ACK_FAILED);
        return;
    }
    MutexLock region(regionMutex, ADOPT_LOCK);
    const char* path = active_capability_path();
    // The size of the file actually opened, whatever the path does next. A FIFO or device
    // at the fixed path is no capability file; a size past 32 bits cannot be announced.
    int capFd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    struct stat st {};
    if (capFd >= 0 && (fstat(capFd, &st) != 0 || !S_ISREG(st.st_mode))) {
        close(capFd);
        capFd = -1;
        errno = ENOENT;
    }
    if (capFd < 0) {
        log_warn("[WARN],%scap file open error\n", "void korvel::CEventBase::process_cap_get(int)");
        send_status(fd, MSG_CAPABILITY, ACK_NOT_FOUND);
        return;
    }
    if (static_cast<uint64_t>(st.st_size) > UINT32_MAX) {
        close(capFd);
        send_status(fd, MSG_CAPABILITY, ACK_TOO_LARGE);
        return;
    }
    fileSize = static_cast<uint32_t>(st.st_size);
    readOffset = 0;
    // The capability file takes the transfer file's place; the one it replaces is closed
    // here so that repeated requests hold one descriptor at most.
    if (fileFd != -1) {
        close(fileFd);
    }
    fileFd = capFd;
    if (event_switch_meminfo(fd, MSG_CAPABILITY) != 0) {
        log_print(1, "can't map download file to memory\n");
        return;
    }
    if (quitRequested) {
        return;
    }
    // The region holds one burst of the file; the loop never sends more than one burst. A
    // file that shrank under the region has had its 0xFB06 from the loop already.
    BurstResult r = send_burst(*this, make_plan(fd, MSG_CAPABILITY, mmap_base_addr, 0, fileSize));
    if (r.end == BurstEnd::SendFailed) {
        log_print(1, "cap file send failed %d\n", static_cast<int>(r.lastResult));
        send_status(fd, MSG_CAPABILITY, ACK_FAILED);
    }
}

}  // namespace korvel

// The mapped region of an app's transfer file: at most one burst of file bytes, mapped
// read-only from the page that holds readOffset. Callers hold regionMutex.
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "client/event_base.h"
#include "core/config.h"
#include "log/log.h"
#include "transfer/transfer_internal.h"

namespace korvel {

int32_t CEventBase::event_switch_meminfo(int fd, uint8_t msgType) {
    if (mmap_base_addr != nullptr && mapsize != 0) {
        madvise(mmap_base_addr, mapsize, MADV_DONTNEED);
        if (munmap(mmap_base_addr, mapsize) == -1) {
            log_print(1, "unmap failed, memleak addr:0x%p, size:%d", mmap_base_addr,
                      static_cast<int>(mapsize));
        }
        mmap_base_addr = nullptr;
    }
    uint32_t burst = userDefPacksize * userDefBlocks;
    uint32_t start = readOffset;
    uint32_t remaining = fileSize - start;
    uint32_t page = start & (PAGE_SIZE_FIXED - 1);
    mapoff = start & ~(PAGE_SIZE_FIXED - 1);
    mapsize = burst >= remaining ? page + remaining : page + burst;
    log_print(1, "debug: current data %d, %d, %d, %d\n", static_cast<int>(mapsize),
              static_cast<int>(mapoff), static_cast<int>(start), static_cast<int>(fileSize));
    void* addr = MAP_FAILED;
    // A position past the end would map pages the file does not have; reading them kills
    // the process, so such a region is refused like an empty one.
    if (start <= fileSize && mapsize != 0) {
        addr = mmap(nullptr, mapsize, PROT_READ, MAP_SHARED, fileFd, mapoff);
    }
    if (addr == MAP_FAILED) {
        log_warn("[WARN],%smmap failed!\n",
                 "int32_t korvel::CEventBase::event_switch_meminfo(int, uint8_t)");
        if (fileFd != -1) {
            close(fileFd);
        }
        fileOpened = 0;
        fileFd = -1;
        mmap_base_addr = nullptr;
        send_status(fd, msgType, ACK_FAILED);
        return -1;
    }
    mmap_base_addr = static_cast<uint8_t*>(addr);
    log_print(1, "mmap_base_addr: %p, size: %d, filesize %d, mapoff: %d\n", addr,
              static_cast<int>(mapsize), static_cast<int>(fileSize), static_cast<int>(mapoff));
    if (mapsize > 65536) {
        madvise(addr, mapsize, MADV_WILLNEED);
    }
    return 0;
}

void CEventBase::release_region() {
    if (mmap_base_addr == nullptr) {
        return;
    }
    madvise(mmap_base_addr, mapsize, MADV_DONTNEED);
    log_print(1, "unmap\n");
    if (munmap(mmap_base_addr, mapsize) == -1) {
        log_print(1, "unmap failed, memleak addr:%p, size:%d", mmap_base_addr,
                  static_cast<int>(mapsize));
    }
    mmap_base_addr = nullptr;
}

// A file that shrank under its mapping would fault on the next read of the lost pages;
// checked before every burst so that such a file fails like an unmappable one.
bool region_still_backed(int fileFd, uint32_t mapoff, uint32_t mapsize) {
    struct stat st {};
    if (fstat(fileFd, &st) != 0) {
        return false;
    }
    return static_cast<uint64_t>(st.st_size) >= static_cast<uint64_t>(mapoff) + mapsize;
}

bool lock_region(Mutex& regionMutex) {
    if (Handler::on_loop_thread()) {
        return regionMutex.try_lock();  // the loop serves every app: it never waits for one stream
    }
    auto deadline = std::chrono::steady_clock::now() + REGION_WAIT;
    while (!regionMutex.try_lock()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        usleep(1000);
    }
    return true;
}

}  // namespace korvel

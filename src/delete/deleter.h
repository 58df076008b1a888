// The background deleter: one thread per process that unlinks files moved into the
// holding directory by delete requests.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <thread>

#include "core/mutex.h"

namespace korvel {

class DWF_DELHandler {
public:
    DWF_DELHandler();
    virtual ~DWF_DELHandler();
    DWF_DELHandler(const DWF_DELHandler&) = delete;
    DWF_DELHandler& operator=(const DWF_DELHandler&) = delete;

    static void DelEntrance(DWF_DELHandler* d);
    static void remove_file(const std::string& path);
    void queue_path(const std::string& path);  // append, notify_all; never waits for the disk
    void start();                              // starts delThread running DelEntrance(this)

    std::unique_ptr<std::thread> delThread;
    Mutex delMutex;
    std::atomic<uint8_t> running{0};
    std::condition_variable_any delCond;
    std::deque<std::string> pendingNames GUARDED_BY(delMutex);
    // Set by the destructor before it queues the wake-up marker. The thread sets `running`
    // itself, possibly after the destructor cleared it, so this is what it trusts to stop.
    std::atomic<uint8_t> stopRequested{0};
};

// Queues every regular file left in the card's holding directory, which a process that
// ended before its deleter reached them leaves behind, unseen by any catalogue. Returns
// how many were queued. Called once at start-up, right after the deleter is made.
size_t queue_leftovers(DWF_DELHandler& deleter);

// Set once by korvel_download_init before any event base exists; never changed after.
extern DWF_DELHandler* mdeletehanlder;

}  // namespace korvel

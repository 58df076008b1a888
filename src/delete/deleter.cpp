// The background deleter: one thread per process that unlinks the files delete requests
// have moved into the holding directory, one path at a time, in the order they were queued.
#include "delete/deleter.h"

#include <unistd.h>

#include <utility>

namespace korvel {

DWF_DELHandler* mdeletehanlder = nullptr;

DWF_DELHandler::DWF_DELHandler() = default;

DWF_DELHandler::~DWF_DELHandler() {
    if (!delThread) {
        return;
    }
    // The handshake runs whenever the thread exists, not only once it has set `running`:
    // a deleter destroyed right after start() would otherwise join a thread that waits
    // on an empty queue for ever.
    stopRequested.store(1);
    running.store(0);
    {
        MutexLock lock(delMutex);
        pendingNames.clear();  // what they name stays in the holding directory
        pendingNames.emplace_back();
        delCond.notify_all();
    }
    if (delThread->joinable()) {
        delThread->join();
    }
    delThread.reset();
}

void DWF_DELHandler::start() {
    if (delThread) {
        return;
    }
    delThread.reset(new std::thread(&DWF_DELHandler::DelEntrance, this));
}

void DWF_DELHandler::queue_path(const std::string& path) {
    MutexLock lock(delMutex);
    pendingNames.push_back(path);
    delCond.notify_all();
}

void DWF_DELHandler::remove_file(const std::string& path) {
    if (access(path.c_str(), F_OK) == 0) {
        unlink(path.c_str());
    }
}

void DWF_DELHandler::DelEntrance(DWF_DELHandler* d) {
    if (d == nullptr) {
        return;
    }
    d->running.store(1);
    for (;;) {
        std::string path;
        {
            MutexLock lock(d->delMutex);
            while (d->pendingNames.empty()) {
                d->delCond.wait(d->delMutex);
            }
            path = std::move(d->pendingNames.front());
            d->pendingNames.pop_front();
        }
        // An empty text is the destructor's wake-up marker and names no file.
        if (!path.empty()) {
            remove_file(path);
        }
        if (d->running.load() == 0 || d->stopRequested.load() != 0) {
            return;
        }
    }
}

}  // namespace korvel

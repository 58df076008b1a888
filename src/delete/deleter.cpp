// The background deleter: one thread per process that unlinks the files delete requests
// have moved into the holding directory, one path at a time, in the order they were queued.
#include "delete/deleter.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <utility>

#include "core/card_fs.h"
#include "core/config.h"
#include "core/scoped.h"

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

// The holding directory is reached beneath the card without following links, so a link
// put in its place cannot carry an unlink off the card.
void DWF_DELHandler::remove_file(const std::string& path) {
    const char* leaf = nullptr;
    ScopedFd dir(card_open_parent(path.c_str(), &leaf));
    if (dir.get() >= 0 && is_regular_at(dir.get(), leaf)) {
        unlinkat(dir.get(), leaf, 0);
    }
}

size_t queue_leftovers(DWF_DELHandler& deleter) {
    std::string holding = std::string(active_sd_root()) + MEDIA_SUBDIR + "/" + HOLDING_DIR;
    ScopedFd fd(card_open_dir(holding.c_str()));
    DIR* dir = fd.get() >= 0 ? fdopendir(fd.get()) : nullptr;
    if (dir == nullptr) {
        return 0;
    }
    fd.release();  // the directory stream owns it now
    size_t queued = 0;
    while (struct dirent* e = readdir(dir)) {
        if (is_regular_at(dirfd(dir), e->d_name)) {
            deleter.queue_path(holding + "/" + e->d_name);
            ++queued;
        }
    }
    closedir(dir);
    return queued;
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

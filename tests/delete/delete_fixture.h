// Shared set-up for the delete tests: a card with DCIM/100MEDIA in a temporary directory,
// a sibling directory "outside" the card for sentinels, and polling helpers.
#pragma once

#include <dirent.h>
#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "support/temp_dir.h"

namespace korvel {
namespace deletetest {

// Layout: <tmp>/card is the storage root, <tmp>/outside lies beside it.
struct CardTree {
    testsupport::TempDir tmp;
    std::string card = tmp.file("card");
    std::string dcim = card + "/DCIM";
    std::string media = dcim + "/100MEDIA";
    std::string holding = dcim + "/tmp_delete";
    std::string outside = tmp.file("outside");

    CardTree() {
        testsupport::make_dirs(media);
        testsupport::make_dirs(outside);
    }
    std::string in_media(const std::string& name) const { return media + "/" + name; }
    std::string in_holding(const std::string& name) const { return holding + "/" + name; }
    void put(const std::string& path, const std::string& bytes = "x") const {
        testsupport::write_file(path, bytes);
    }
    void put_media(const std::vector<std::string>& names) const {
        for (const std::string& n : names) {
            put(in_media(n), n);
        }
    }
    void enable_trace() const { put(card + "/krv_log.conf", "1,0\n"); }
};

// Records the names of files unlinked (or other events of `mask`) in one directory, in the order
// the kernel saw it.
class UnlinkWatch {
public:
    explicit UnlinkWatch(const std::string& dir, uint32_t mask = IN_DELETE) {
        fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        if (fd >= 0) {
            inotify_add_watch(fd, dir.c_str(), mask);
        }
    }
    ~UnlinkWatch() {
        if (fd >= 0) {
            close(fd);
        }
    }
    bool ok() const { return fd >= 0; }

    // Collects events until `count` names are seen or the deadline passes.
    std::vector<std::string> wait_for(size_t count, int deadlineMs = 10000) {
        auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(deadlineMs);
        while (names.size() < count && std::chrono::steady_clock::now() < until) {
            struct pollfd p = {fd, POLLIN, 0};
            if (poll(&p, 1, 100) > 0) {
                drain();
            }
        }
        return names;
    }

private:
    void drain() {
        alignas(struct inotify_event) char buf[8192];
        ssize_t n = read(fd, buf, sizeof buf);
        for (ssize_t at = 0; at < n;) {
            auto* ev = reinterpret_cast<struct inotify_event*>(buf + at);
            if (ev->len > 0) {
                names.emplace_back(ev->name);
            }
            at += static_cast<ssize_t>(sizeof(struct inotify_event) + ev->len);
        }
    }

    int fd = -1;
    std::vector<std::string> names;
};

// Polls until pred() holds or the deadline passes; no fixed sleeps in the tests.
template <typename Pred>
bool eventually(Pred pred, int deadlineMs = 10000) {
    auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(deadlineMs);
    while (!pred()) {
        if (std::chrono::steady_clock::now() >= until) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

inline size_t entries_in(const std::string& dir) {
    size_t n = 0;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d)) {
            n += e->d_name[0] != '.';
        }
        closedir(d);
    }
    return n;
}

inline size_t count_of(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) {
        ++n;
    }
    return n;
}

}  // namespace deletetest
}  // namespace korvel

// Shared set-up for the delete tests: a card with DCIM/100MEDIA in a temporary directory,
// a sibling directory "outside" it for sentinels, and polling helpers (no fixed sleeps).
#pragma once

#include <dirent.h>
#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "support/temp_dir.h"

namespace korvel {
namespace deletetest {

struct CardTree {
    testsupport::TempDir tmp;
    std::string card = tmp.file("card");  // the storage root
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
    void put_media(const std::vector<std::string>& names) const {
        for (const std::string& n : names) {
            testsupport::write_file(in_media(n), n);
        }
    }
    void enable_trace() const { testsupport::write_file(card + "/krv_log.conf", "1,0\n"); }
};

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

// The names unlinked in one directory, in the order the kernel saw them.
class UnlinkWatch {
public:
    explicit UnlinkWatch(const std::string& dir) : fd(inotify_init1(IN_NONBLOCK)) {
        inotify_add_watch(fd, dir.c_str(), IN_DELETE);
    }
    ~UnlinkWatch() { close(fd); }

    std::vector<std::string> wait_for(size_t count) {
        eventually([&] {
            struct pollfd p = {fd, POLLIN, 0};
            alignas(struct inotify_event) char buf[8192];
            ssize_t n = poll(&p, 1, 50) > 0 ? read(fd, buf, sizeof buf) : 0;
            for (ssize_t at = 0; at < n;) {
                auto* ev = reinterpret_cast<struct inotify_event*>(buf + at);
                names.emplace_back(ev->name);
                at += static_cast<ssize_t>(sizeof(struct inotify_event) + ev->len);
            }
            return names.size() >= count;
        });
        return names;
    }

private:
    int fd;
    std::vector<std::string> names;
};

}  // namespace deletetest
}  // namespace korvel

// Shared set-up for the delete tests: a card with DCIM/100MEDIA in a temporary directory,
// a sibling directory "outside" the card for sentinels, and polling helpers.
#pragma once

#include <chrono>
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

inline size_t count_of(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) {
        ++n;
    }
    return n;
}

}  // namespace deletetest
}  // namespace korvel

// Catalogue cost against `find DIR -printf '%s %C@\n'` over the same tree, in the same run
// and the same (warm) cache state: the build alone (scan, walk, text) and the first
// catalogue packet of a fresh event base (build plus one packet over a socketpair).
// Prints one table row per tree; the per-file column shows whether growth is linear.
// Each build starts on a fresh event base, as after every last-package notice, so the
// text's memory is new to the process; "rsv/B" is the text's reserve over its length.
#include <fcntl.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "client/event_base.h"
#include "core/config.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point t0) {
    return std::chrono::duration<double>(Clock::now() - t0).count();
}

void touch(const std::string& path) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd >= 0) {
        close(fd);
    }
}

// Groups of five files: a photo with its thumbnail, a video with thumbnail and second
// stream, so every entry has companions to find. Returns the number of files made.
size_t make_tree(const std::string& location, int dirs, int filesPerDir) {
    size_t made = 0;
    for (int d = 0; d < dirs; ++d) {
        std::string dir = location + "/" + std::to_string(100 + d) + "MEDIA";
        mkdir(dir.c_str(), 0755);
        for (int g = 0; g < filesPerDir / 5; ++g) {
            std::string stem = dir + "/F" + std::to_string(g);
            for (const char* ext : {"P.JPG", "P.thm", "V.MP4", "V.THM", "V.2nd"}) {
                touch(stem + ext);
                ++made;
            }
        }
    }
    return made;
}

void remove_tree(const std::string& path) {
    pid_t pid;
    const char* argv[] = {"rm", "-rf", path.c_str(), nullptr};
    if (posix_spawnp(&pid, "rm", nullptr, nullptr, const_cast<char**>(argv), environ) == 0) {
        waitpid(pid, nullptr, 0);
    }
}

double time_find(const std::string& dir) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    const char* argv[] = {"find", dir.c_str(), "-printf", "%s %C@\n", nullptr};
    auto t0 = Clock::now();
    pid_t pid;
    if (posix_spawnp(&pid, "find", &actions, nullptr, const_cast<char**>(argv), environ) != 0) {
        posix_spawn_file_actions_destroy(&actions);
        return -1;
    }
    waitpid(pid, nullptr, 0);
    double s = seconds_since(t0);
    posix_spawn_file_actions_destroy(&actions);
    return s;
}

std::unique_ptr<korvel::CEventBase> event_base_at(const std::string& location) {
    std::unique_ptr<korvel::CEventBase> ev(new korvel::CEventBase());
    korvel::MutexLock lock(ev->locationMutex);
    snprintf(ev->resourceLocation, sizeof ev->resourceLocation, "%s", location.c_str());
    ev->userDefLocation = 0;
    ev->resourceLocationId = 0;
    return ev;
}

// The build alone on a fresh event base; the teardown is not timed. `reserved` gets the
// text's capacity: the reserve made from the names, unless the text outgrew it.
double time_build(const std::string& location, uint32_t* length, size_t* reserved) {
    auto ev = event_base_at(location);
    ev->catalogueType = 1;
    auto t0 = Clock::now();
    ev->json_file_list_create(length);
    double s = seconds_since(t0);
    *reserved = ev->catalogueText.capacity();
    return s;
}

// A fresh event base's first catalogue request, up to its first packet read by the app.
double time_first_packet(const std::string& location) {
    auto ev = event_base_at(location);
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0) {
        return -1;
    }
    ev->userDefBlocks = 1;
    auto t0 = Clock::now();
    ev->json_file_list_send(sv[0], 1, 1, 0);
    std::vector<char> buf(8192);
    ssize_t got = read(sv[1], buf.data(), buf.size());
    double s = seconds_since(t0);
    close(sv[0]);
    close(sv[1]);
    return got > 0 ? s : -1;
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

struct Row {
    const char* label;
    int dirs;
    int filesPerDir;
    int reps;
};

void run_row(const std::string& scratch, const Row& row) {
    std::string location = scratch + "/DCIM";
    mkdir(location.c_str(), 0755);
    size_t files = make_tree(location, row.dirs, row.filesPerDir);
    uint32_t length = 0;
    size_t reserved = 0;
    time_find(location);  // warm both up: the same cache state for each
    time_build(location, &length, &reserved);
    std::vector<double> find, build, first;
    for (int r = 0; r < row.reps; ++r) {
        find.push_back(time_find(location));
        build.push_back(time_build(location, &length, &reserved));
        first.push_back(time_first_packet(location));
    }
    double f = median(find), b = median(build), p = median(first);
    double us = 1e6 / static_cast<double>(files);
    printf("%-24s %7zu %9u %6.2f %9.1f %9.1f %9.1f %6.2f %6.2f %7.2f %7.2f %7.2f\n", row.label,
           files, length, static_cast<double>(reserved) / length, f * 1e3, b * 1e3, p * 1e3, b / f,
           p / f, f * us, b * us, p * us);
    fflush(stdout);
    remove_tree(location);
}

}  // namespace

int main() {
    char tmpl[] = "/tmp/korvel-bench-XXXXXX";
    const char* scratch = mkdtemp(tmpl);
    if (scratch == nullptr) {
        perror("mkdtemp");
        return 1;
    }
    // The log switch file is looked for under the card root: keep it in the scratch tree.
    korvel::testing_seam::set_sd_root(scratch);
    const Row rows[] = {
        {"100 dirs x 100 files", 100, 100, 7}, {"1 dir x 10,000 files", 1, 10000, 7},
        {"ladder: 1,000 files", 1, 1000, 15},  {"ladder: 10,000 files", 1, 10000, 7},
        {"ladder: 50,000 files", 1, 50000, 5},
    };
    printf("Median of repeated runs, warm cache; times in ms, per-file in us.\n");
    printf("%-24s %7s %9s %6s %9s %9s %9s %6s %6s %7s %7s %7s\n", "tree", "files", "json B", "rsv/B", "find",
           "build", "1st pkt", "b/find", "p/find", "find/f", "build/f", "pkt/f");
    for (const Row& row : rows) {
        run_row(scratch, row);
    }
    remove_tree(scratch);
    return 0;
}

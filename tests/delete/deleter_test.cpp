// The background deleter alone: queue order, missing and empty paths, two producers, stop.
#include "delete/deleter.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "support/temp_dir.h"

namespace korvel {
namespace {

class DeleterTest : public ::testing::Test {
protected:
    void SetUp() override { inotify_add_watch(watchFd, dir.path().c_str(), IN_DELETE); }
    void TearDown() override { close(watchFd); }
    std::string make(const std::string& name) {
        testsupport::write_file(dir.file(name), "x");
        return dir.file(name);
    }
    // The names unlinked so far, in the order the kernel saw them; waits for `count`.
    std::vector<std::string> unlinked(size_t count) {
        alignas(struct inotify_event) char buf[8192];
        struct pollfd p = {watchFd, POLLIN, 0};
        while (seen.size() < count && poll(&p, 1, 10000) > 0) {
            ssize_t n = read(watchFd, buf, sizeof buf);
            for (ssize_t at = 0; at < n;) {
                auto* ev = reinterpret_cast<struct inotify_event*>(buf + at);
                seen.emplace_back(ev->name);
                at += static_cast<ssize_t>(sizeof(struct inotify_event) + ev->len);
            }
        }
        return seen;
    }
    testsupport::TempDir dir;
    int watchFd = inotify_init1(IN_NONBLOCK);
    std::vector<std::string> seen;
};

TEST_F(DeleterTest, RemovesInQueueOrderPassingOverMissingAndEmptyPaths) {
    DWF_DELHandler d;
    d.queue_path(make("c.MP4"));  // queued before start: one known order
    d.queue_path(dir.file("never-there.MP4"));
    d.queue_path(make("a.MP4"));
    d.queue_path("");  // a wake-up text: removes nothing and must not end the thread
    d.queue_path(make("b.2nd"));
    make("untouched.MP4");
    d.start();
    EXPECT_EQ(unlinked(3), (std::vector<std::string>{"c.MP4", "a.MP4", "b.2nd"}));
    d.queue_path(make("late.MP4"));
    EXPECT_EQ(unlinked(4).back(), "late.MP4");
    EXPECT_TRUE(testsupport::exists(dir.file("untouched.MP4")));
}

TEST_F(DeleterTest, TwoProducersAllRemovedOnceEachInTheirOrder) {
    constexpr int PER_PRODUCER = 150;
    DWF_DELHandler d;
    d.start();
    auto produce = [&](char p) {
        for (int i = 0; i < PER_PRODUCER; ++i) {
            d.queue_path(make(p + std::to_string(i)));
        }
    };
    std::thread a(produce, 'a'), b(produce, 'b');
    a.join();
    b.join();
    ASSERT_EQ(unlinked(2 * PER_PRODUCER).size(), 2u * PER_PRODUCER);
    int next[2] = {0, 0};
    for (const std::string& name : seen) {
        EXPECT_EQ(name.substr(1), std::to_string(next[name[0] - 'a']++)) << name;
    }
}

TEST_F(DeleterTest, DestroyingStopsTheThreadEvenRightAfterStart) {
    // The thread may not have set `running` yet; join() must still return (a hang times out).
    for (int i = 0; i < 200; ++i) {
        DWF_DELHandler d;
        d.start();
    }
}

}  // namespace
}  // namespace korvel

// The background deleter on its own: queue order, paths that are gone, the empty wake-up
// text, two producers, and the stop handshake.
#include "delete/deleter.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "delete/delete_fixture.h"
#include "support/temp_dir.h"

namespace korvel {
namespace {

using deletetest::UnlinkWatch;
using testsupport::exists;

class DeleterTest : public ::testing::Test {
protected:
    std::string make(const std::string& name) {
        testsupport::write_file(dir.file(name), "x");
        return dir.file(name);
    }
    testsupport::TempDir dir;
};

TEST_F(DeleterTest, RemovesInQueueOrderPassingOverMissingAndEmptyPaths) {
    UnlinkWatch watch(dir.path());
    DWF_DELHandler d;
    // Queued before the thread starts, so it takes the whole sequence in one known order.
    d.queue_path(make("c.MP4"));
    d.queue_path(dir.file("never-there.MP4"));
    d.queue_path(make("a.MP4"));
    d.queue_path("");  // a wake-up text: removes nothing and must not end the thread
    d.queue_path(make("b.2nd"));
    make("untouched.MP4");
    d.start();
    EXPECT_EQ(watch.wait_for(3), (std::vector<std::string>{"c.MP4", "a.MP4", "b.2nd"}));

    d.queue_path(make("late.MP4"));  // still running after the empty text
    EXPECT_EQ(watch.wait_for(4).back(), "late.MP4");
    EXPECT_TRUE(exists(dir.file("untouched.MP4")));
}

TEST_F(DeleterTest, TwoProducersAllRemovedOnceEachInTheirOrder) {
    constexpr int PER_PRODUCER = 150;
    UnlinkWatch watch(dir.path());
    DWF_DELHandler d;
    d.start();
    std::vector<std::thread> producers;
    for (int p = 0; p < 2; ++p) {
        producers.emplace_back([this, &d, p] {
            for (int i = 0; i < PER_PRODUCER; ++i) {
                d.queue_path(make("p" + std::to_string(p) + "_" + std::to_string(i)));
            }
        });
    }
    for (auto& t : producers) {
        t.join();
    }
    std::vector<std::string> seen = watch.wait_for(2 * PER_PRODUCER);
    ASSERT_EQ(seen.size(), 2u * PER_PRODUCER);
    int next[2] = {0, 0};
    for (const std::string& name : seen) {
        int p = name[1] - '0';
        EXPECT_EQ(name, "p" + std::to_string(p) + "_" + std::to_string(next[p]++));
    }
}

TEST_F(DeleterTest, DestroyingStopsTheThreadEvenRightAfterStart) {
    // The thread may not have set `running` yet when the destructor runs; join() must
    // still return (a hang shows as the test's timeout).
    for (int i = 0; i < 200; ++i) {
        DWF_DELHandler d;
        d.start();
    }
    std::string stays = make("stays.MP4");
    {
        DWF_DELHandler neverStarted;
        neverStarted.queue_path(stays);
    }
    EXPECT_TRUE(exists(stays));
}

}  // namespace
}  // namespace korvel

// The background deleter on its own: queue order, paths that are gone, the empty wake-up
// text, several producers, and the stop handshake.
#include "delete/deleter.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "delete/delete_fixture.h"
#include "support/temp_dir.h"

namespace korvel {
namespace {

using deletetest::UnlinkWatch;
using testsupport::exists;
using testsupport::TempDir;
using testsupport::write_file;

class DeleterTest : public ::testing::Test {
protected:
    std::string make(const std::string& name) {
        std::string path = dir.file(name);
        write_file(path, "x");
        return path;
    }
    TempDir dir;
};

TEST_F(DeleterTest, RemovesInQueueOrderPassingOverMissingAndEmptyPaths) {
    UnlinkWatch watch(dir.path());
    ASSERT_TRUE(watch.ok());
    DWF_DELHandler d;
    // Queued before the thread starts, so the whole sequence is taken in one known order.
    const std::vector<std::string> order = {"c.MP4", "a.MP4", "e.2nd", "b.MOV", "d.MP4"};
    d.queue_path(dir.file(order[0]));
    d.queue_path(dir.file("never-there.MP4"));
    d.queue_path(dir.file(order[1]));
    d.queue_path("");  // a wake-up text: removes nothing and must not end the thread
    for (size_t i = 2; i < order.size(); ++i) {
        d.queue_path(make(order[i]));
    }
    make(order[0]);
    make(order[1]);
    make("untouched.MP4");
    d.start();

    EXPECT_EQ(watch.wait_for(order.size()), order);
    EXPECT_TRUE(exists(dir.file("untouched.MP4")));

    // Still running after the empty text: a later path is handled too.
    std::string late = make("late.MP4");
    d.queue_path(late);
    EXPECT_EQ(watch.wait_for(order.size() + 1).back(), "late.MP4");
}

TEST_F(DeleterTest, TwoProducersAllRemovedOnceEachInTheirOrder) {
    constexpr int PER_PRODUCER = 150;
    std::vector<std::string> paths[2];
    for (int p = 0; p < 2; ++p) {
        for (int i = 0; i < PER_PRODUCER; ++i) {
            paths[p].push_back(make("p" + std::to_string(p) + "_" + std::to_string(i) + ".MP4"));
        }
    }
    UnlinkWatch watch(dir.path());
    ASSERT_TRUE(watch.ok());
    DWF_DELHandler d;
    d.start();
    std::thread producers[2];
    for (int p = 0; p < 2; ++p) {
        producers[p] = std::thread([&d, &paths, p] {
            for (const std::string& path : paths[p]) {
                d.queue_path(path);
            }
        });
    }
    for (auto& t : producers) {
        t.join();
    }
    std::vector<std::string> seen = watch.wait_for(2 * PER_PRODUCER);
    ASSERT_EQ(seen.size(), 2u * PER_PRODUCER);
    // Each producer's paths appear in the order it appended them, each exactly once.
    for (int p = 0; p < 2; ++p) {
        std::string prefix = "p" + std::to_string(p) + "_";
        int next = 0;
        for (const std::string& name : seen) {
            if (name.compare(0, prefix.size(), prefix) == 0) {
                EXPECT_EQ(name, prefix + std::to_string(next) + ".MP4");
                ++next;
            }
        }
        EXPECT_EQ(next, PER_PRODUCER);
    }
}

TEST_F(DeleterTest, DestroyingStopsTheThreadEvenRightAfterStart) {
    // The thread may not yet have set `running` when the destructor runs; this must not
    // leave join() waiting for ever (the test's timeout would catch it).
    for (int i = 0; i < 200; ++i) {
        DWF_DELHandler d;
        d.start();
        if (i % 2 == 0) {
            d.queue_path(dir.file("missing.MP4"));
        }
    }
    // A deleter that never started removes nothing, not even on the way out.
    std::string stays = make("stays.MP4");
    {
        DWF_DELHandler idle;
        idle.queue_path(stays);
    }
    EXPECT_TRUE(exists(stays));
}

}  // namespace
}  // namespace korvel

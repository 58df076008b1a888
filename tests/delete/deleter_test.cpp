// The background deleter alone: queued files go, missing and empty paths pass, it stops.
#include "delete/deleter.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "support/temp_dir.h"

namespace korvel {
namespace {

using testsupport::exists;

TEST(Deleter, RemovesQueuedFilesPassingOverMissingAndEmptyPaths) {
    testsupport::TempDir dir;
    for (const char* name : {"c.MP4", "b.2nd", "untouched.MP4"}) {
        testsupport::write_file(dir.file(name), "x");
    }
    DWF_DELHandler d;
    d.queue_path(dir.file("c.MP4"));  // queued before start
    d.queue_path(dir.file("never-there.MP4"));
    d.queue_path("");  // a wake-up text: removes nothing and must not end the thread
    d.start();
    d.queue_path(dir.file("b.2nd"));
    for (int i = 0; i < 1000 && exists(dir.file("b.2nd")); ++i) {
        usleep(10000);
    }
    EXPECT_FALSE(exists(dir.file("c.MP4")) || exists(dir.file("b.2nd")));
    EXPECT_TRUE(exists(dir.file("untouched.MP4")));
}

TEST(Deleter, DestroyingStopsTheThreadEvenRightAfterStart) {
    // The thread may not be running yet; join() must still return (a hang times out).
    for (int i = 0; i < 200; ++i) {
        DWF_DELHandler d;
        d.start();
    }
}

}  // namespace
}  // namespace korvel

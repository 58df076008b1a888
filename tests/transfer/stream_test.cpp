// Chunk streams: markers, header offsets counted from the region, readOffset bookkeeping,
// refusals and lost pages. EXIF thumbnails streamed at every packet size are the soak test's
// (byte-compared); a download refused while a stream holds the region, the hostile test's.
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "core/mapping_guard.h"
#include "transfer/burst.h"
#include "transfer_fixture.h"

namespace korvel {
namespace transfertest {
namespace {

class Stream : public TransferTest {
protected:
    std::string data = pattern(40000);
    void SetUp() override {
        TransferTest::SetUp();
        add("CLIP.MP4", data);
    }
};

// One open file, requests in this order: the region moves only when a request leaves it.
TEST_F(Stream, RequestsWalkTheFileWithMarkersAndRegionOffsets) {
    ASSERT_EQ(answer(download("100MEDIA-CLIP.MP4"), MSG_DOWNLOAD), 40000u);
    struct Case {
        uint32_t offset, length, msgType;
        std::vector<uint32_t> markers;
        uint32_t first, bytes, readOffset, mapoff;
    } cases[] = {
        {5000, 3000, 3, {3}, 5000, 3000, 8000, 0},  // inside the region mapped on download
        {17000, 0, 3, {2, 2, 2, 2}, 616, 16384, 33384, 16384},
        {0, 0, 3, {0, 0, 0, 2}, 0, 16384, 16384, 0},
        {32768, 0, 6, {2, 3}, 0, 7232, 40000, 32768},
        {40000, 0, 3, {}, 0, 0, 40000, 32768},  // nothing left: no packet, no reply
        {0, 1000, 3, {1}, 0, 1000, 1000, 0},
        {1000, 8192, 6, {2, 3}, 1000, 8192, 9192, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.offset) + "+" + std::to_string(c.length));
        Replies r = chunk(c.offset, c.length, static_cast<uint8_t>(c.msgType));
        EXPECT_EQ(burst(r, c.msgType, c.markers, c.first),
                  data.substr(c.mapoff + c.first, c.bytes));
        EXPECT_EQ(eb->readOffset, c.readOffset);
        EXPECT_EQ(eb->mapoff, c.mapoff);
    }
}

TEST_F(Stream, RefusedAndEmptyRequestsStreamNothing) {
    for (uint8_t type : {3, 6}) {  // before any download
        EXPECT_EQ(answer(chunk(0, 0, type), type, 3), ACK_END_OF_DATA);
    }
    ASSERT_EQ(answer(download("100MEDIA-CLIP.MP4"), MSG_DOWNLOAD), 40000u);
    EXPECT_EQ(answer(chunk(0, 16385), 3), ACK_FAILED);  // one byte over the burst
    EXPECT_EQ(answer(chunk(39000, 2000), 3), ACK_FAILED);
    EXPECT_EQ(answer(chunk(0xFFFFF000, 0x1000, 6), 6), ACK_FAILED);  // would wrap in 32 bits
    EXPECT_EQ(eb->readOffset, 0xFFFFF000u);                          // set before the range check
    eb->quitRequested = 1;
    EXPECT_TRUE(chunk(0, 0).empty());
    EXPECT_EQ(eb->readOffset, 16384u);  // a quit still counts the burst as taken
    eb->quitRequested = 0;
    ASSERT_EQ(configure(0, 4), ACK_DONE);  // a burst of 0 bytes: an empty chunk
    EXPECT_TRUE(chunk(0, 0).empty());
    eb->readOffset = 50000;  // a region past the end cannot be mapped: the file is closed
    EXPECT_EQ(eb->event_switch_meminfo(sv[0], 6), -1);
    EXPECT_EQ(answer(replies(), 6), ACK_FAILED);
    EXPECT_EQ(eb->fileFd, -1);
    EXPECT_EQ(eb->fileOpened, 0);
}

// A file cut short under its region: the burst stops at the lost page with 0xFB06 instead of
// taking the server down with SIGBUS, and the next request refuses before sending.
TEST_F(Stream, PagesLostMidBurstEndTheBurstWithFailure) {
    install_mapping_guard();
    ASSERT_EQ(answer(download("100MEDIA-CLIP.MP4"), MSG_DOWNLOAD), 40000u);
    ASSERT_EQ(truncate((location + "/100MEDIA/CLIP.MP4").c_str(), 4096), 0);
    BurstResult r = send_burst(*eb, make_plan(sv[0], 3, eb->mmap_base_addr, 0, 16384));
    EXPECT_EQ(r.end, BurstEnd::SourceLost);
    Replies got = replies();
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(std::string(got[0].payload.begin(), got[0].payload.end()), data.substr(0, 4096));
    EXPECT_EQ(answer({got[1]}, 3), ACK_FAILED);
    EXPECT_EQ(answer(chunk(4096, 0), 3), ACK_FAILED);
}

}  // namespace
}  // namespace transfertest
}  // namespace korvel

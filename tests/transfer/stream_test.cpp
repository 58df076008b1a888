// Mapped regions and chunk streams: region bounds, markers, header offsets, readOffset
// bookkeeping, refusals, empty chunks and thumbnail streams.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "core/mapping_guard.h"
#include "support/jpeg_builder.h"
#include "transfer/burst.h"
#include "transfer_fixture.h"

namespace korvel {
namespace transfertest {
namespace {

class Stream : public TransferTest {
protected:
    std::string data;
    // Configures the burst, puts a file of `size` pattern bytes on the card and downloads it.
    void open_file(uint32_t size, uint16_t packsize, uint16_t blocks) {
        ASSERT_EQ(configure(packsize, blocks), ACK_DONE);
        data = pattern(size);
        add("100MEDIA", "CLIP.MP4", data);
        ASSERT_EQ(size_reply(download("100MEDIA-CLIP.MP4")), size);
    }
    // Checks each packet's marker, header offset and bytes (file offset = mapoff + offset).
    void expect_burst(const Replies& r, const std::vector<uint32_t>& markers,
                      const std::vector<uint32_t>& offsets, const std::vector<size_t>& sizes,
                      uint32_t msgType = 3) {
        ASSERT_EQ(r.size(), markers.size());
        for (size_t i = 0; i < r.size(); ++i) {
            SCOPED_TRACE(i);
            EXPECT_EQ(r[i].reqType, 0u);
            EXPECT_EQ(r[i].msgType, msgType);
            EXPECT_EQ(r[i].marker, markers[i]);
            EXPECT_EQ(r[i].offset, offsets[i]);
            ASSERT_EQ(r[i].payload.size(), sizes[i]);
            EXPECT_EQ(bytes_of(r[i]), data.substr(eb->mapoff + offsets[i], sizes[i]));
        }
    }
};

TEST_F(Stream, RegionStartsAtThePageOfReadOffsetAndHoldsOneBurst) {
    struct Case {
        uint32_t readOffset, fileSize;
        uint16_t packsize, blocks;
        uint32_t mapoff, mapsize;
    } cases[] = {
        {5000, 100000, 4096, 1, 4096, 5000},   {0, 1000, 4096, 1, 0, 1000},
        {4096, 100000, 4096, 4, 4096, 16384},  {0, 10u << 20, 65535, 16, 0, 65535u * 16},
        {99999, 100000, 4096, 1, 98304, 1696},
    };
    std::string path = tmp.file("big.bin");
    std::string bytes = pattern(10u << 20);
    write_file(path, bytes);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.readOffset);
        ASSERT_EQ(configure(c.packsize, c.blocks), ACK_DONE);
        eb->fileFd = open(path.c_str(), O_RDONLY);
        eb->fileSize = c.fileSize;
        eb->readOffset = c.readOffset;
        ASSERT_EQ(eb->event_switch_meminfo(sv[0], 3), 0);
        EXPECT_EQ(eb->mapoff, c.mapoff);
        EXPECT_EQ(eb->mapsize, c.mapsize);
        const uint8_t* at = eb->mmap_base_addr + (c.readOffset - c.mapoff);
        EXPECT_EQ(*at, static_cast<uint8_t>(bytes[c.readOffset]));
        EXPECT_TRUE(replies().empty());
        eb->release_region();
        close(eb->fileFd);
        eb->fileFd = -1;
    }
}

TEST_F(Stream, NothingLeftToMapClosesTheFileAndFails) {
    std::string path = tmp.file("f.bin");
    write_file(path, pattern(8192));
    eb->fileFd = open(path.c_str(), O_RDONLY);
    eb->fileOpened = 1;
    eb->fileSize = 8192;
    eb->readOffset = 8192;
    EXPECT_EQ(eb->event_switch_meminfo(sv[0], 6), -1);
    EXPECT_EQ(only_ack(6), ACK_FAILED);
    EXPECT_EQ(eb->fileFd, -1);
    EXPECT_EQ(eb->fileOpened, 0);
    EXPECT_EQ(eb->mmap_base_addr, nullptr);
}

TEST_F(Stream, LengthZeroBurstsWalkTheFileWithContinuationMarkers) {
    open_file(40000, 4096, 4);
    expect_burst(chunk(0, 0), {0, 0, 0, 2}, {0, 4096, 8192, 12288}, {4096, 4096, 4096, 4096});
    EXPECT_EQ(eb->readOffset, 16384u);
    expect_burst(chunk(16384, 0), {2, 2, 2, 2}, {0, 4096, 8192, 12288}, {4096, 4096, 4096, 4096});
    EXPECT_EQ(eb->mapoff, 16384u);
    expect_burst(chunk(32768, 0), {2, 3}, {0, 4096}, {4096, 3136});
    EXPECT_EQ(eb->readOffset, 40000u);
    // Nothing remains: the request ends without a packet or a reply.
    EXPECT_TRUE(chunk(40000, 0).empty());
    EXPECT_EQ(eb->readOffset, 40000u);
}

TEST_F(Stream, ExplicitLengthEndsEveryBurst) {
    open_file(5000, 1000, 1);
    expect_burst(chunk(0, 1000), {1}, {0}, {1000});
    ASSERT_EQ(configure(1000, 2), ACK_DONE);  // the same open file, a larger burst
    expect_burst(chunk(1000, 2000, 6), {2, 3}, {1000, 2000}, {1000, 1000}, 6);
    EXPECT_EQ(eb->readOffset, 3000u);
}

TEST_F(Stream, HeaderOffsetsCountFromTheRegion) {
    open_file(100000, 4096, 4);
    expect_burst(chunk(5000, 3000), {3}, {5000}, {3000});  // inside the first region
    EXPECT_EQ(eb->mapoff, 0u);
    expect_burst(chunk(20000, 3000), {3}, {3616}, {3000});
    EXPECT_EQ(eb->mapoff, 16384u);
    expect_burst(chunk(17000, 0), {2, 2, 2, 2}, {616, 4712, 8808, 12904}, {4096, 4096, 4096, 4096});
}

TEST_F(Stream, RefusedRequestsStreamNothing) {
    struct Case {
        uint32_t offset, length;
        uint32_t marker, code;
    } cases[] = {
        {0, 16385, 1, ACK_FAILED},            // one byte over the burst
        {39000, 2000, 1, ACK_FAILED},         // past the end
        {0xFFFFF000, 0x1000, 1, ACK_FAILED},  // would wrap in 32 bits
    };
    open_file(40000, 4096, 4);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.offset);
        EXPECT_EQ(ack_code(chunk(c.offset, c.length)), c.code);
    }
    EXPECT_EQ(eb->readOffset, 0xFFFFF000u);  // set before the range check
    ASSERT_EQ(configure(0, 4), ACK_DONE);    // a burst of 0 bytes: an empty chunk
    EXPECT_TRUE(chunk(0, 0).empty());
}

TEST_F(Stream, ChunkBeforeAnyDownloadIsEndOfData) {
    for (uint8_t type : {3, 6}) {
        eb->transfer_file_data(sv[0], type, 0, 0);
        EXPECT_EQ(only_ack(type, 3), ACK_END_OF_DATA);
    }
}

TEST_F(Stream, QuitStopsTheBurstButAdvancesReadOffset) {
    open_file(40000, 4096, 4);
    eb->quitRequested = 1;
    EXPECT_TRUE(chunk(0, 0).empty());
    EXPECT_EQ(eb->readOffset, 16384u);
    eb->quitRequested = 0;
}

// A file cut short while its region is being sent: the page that is gone cannot be read,
// so the burst stops there with 0xFB06 instead of taking the server down with SIGBUS.
TEST_F(Stream, PagesLostMidBurstEndTheBurstWithFailure) {
    install_mapping_guard();
    open_file(40000, 4096, 4);
    ASSERT_EQ(truncate((location + "/100MEDIA/CLIP.MP4").c_str(), 4096), 0);
    BurstResult r = send_burst(*eb, make_plan(sv[0], 3, eb->mmap_base_addr, 0, 16384));
    EXPECT_EQ(r.end, BurstEnd::SourceLost);
    Replies got = replies();
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(bytes_of(got[0]), data.substr(0, 4096));
    EXPECT_EQ(got[1].reqType, 1u);
    EXPECT_EQ(got[1].ackCode, ACK_FAILED);
    EXPECT_EQ(got[1].msgType, 3u);
    // The next request finds the region no longer backed and says so before sending.
    EXPECT_EQ(ack_code(chunk(4096, 0)), ACK_FAILED);
}

TEST_F(Stream, ThumbnailStreamsFromTheJpegUntilItsEnd) {
    ASSERT_EQ(configure(4096, 4), ACK_DONE);
    data = pattern(9000, 7);
    add("100MEDIA", "IMG_0001.JPG",
        testsupport::jpeg_file(testsupport::camera_plan("M", "N", 8, 8, data)));
    ASSERT_EQ(size_reply(download("100MEDIA-IMG_0001.thm")), 9000u);
    ASSERT_EQ(eb->thumbReady, 1);
    struct Case {
        uint32_t readOffset, offset;
        std::vector<uint32_t> markers, offsets;
        std::vector<size_t> sizes;
    } cases[] = {
        {0, 0, {0, 0, 1}, {0, 4096, 8192}, {4096, 4096, 808}},
        {5, 0, {2, 2, 3}, {0, 4096, 8192}, {4096, 4096, 808}},
        {0, 4096, {0, 1}, {4096, 8192}, {4096, 808}},
        {0, 9000, {}, {}, {}},
        {0, 20000, {}, {}, {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.offset);
        eb->readOffset = c.readOffset;
        eb->transfer_thumbnail_data(sv[0], c.offset);
        expect_burst(replies(), c.markers, c.offsets, c.sizes);  // mapoff is 0: no file
        EXPECT_EQ(eb->readOffset, c.readOffset);
    }
}

TEST_F(Stream, DownloadWaitsForARunningStreamThenGivesUp) {
    open_file(40000, 4096, 4);
    std::atomic<bool> holding{false}, done{false};
    std::thread stream([&] {  // stands in for a chunk stream holding the region
        std::lock_guard<std::mutex> region(eb->regionMutex);
        holding = true;
        while (!done) {
            usleep(1000);
        }
    });
    while (!holding) {
        usleep(1000);
    }
    EXPECT_EQ(ack_code(download("100MEDIA-CLIP.MP4")), ACK_FAILED);
    done = true;
    stream.join();
    EXPECT_EQ(size_reply(download("100MEDIA-CLIP.MP4")), 40000u);
}

}  // namespace
}  // namespace transfertest
}  // namespace korvel

// Download and capability requests: size replies, the EXIF thumbnail substitute, files
// that cannot be served, names that try to leave the card, and descriptors over time.
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "support/jpeg_builder.h"
#include "transfer_fixture.h"

namespace korvel {
namespace transfertest {
namespace {

using testsupport::camera_plan;
using testsupport::jpeg_file;

int open_descriptors() {
    int n = 0;
    DIR* d = opendir("/proc/self/fd");
    while (d != nullptr && readdir(d) != nullptr) {
        ++n;
    }
    if (d != nullptr) {
        closedir(d);
    }
    return n;
}

class Download : public TransferTest {
protected:
    void SetUp() override {
        TransferTest::SetUp();
        ASSERT_EQ(configure(4096, 4), ACK_DONE);
    }
};

TEST_F(Download, SizeReplyIsLittleEndianAndTheFirstFileStays) {
    std::string big = add("100MEDIA", "IMG_0001.JPG", "");
    ASSERT_EQ(truncate(big.c_str(), 3000000), 0);
    add("100MEDIA", "IMG_0002.JPG", pattern(10));
    Replies r = download("100MEDIA-IMG_0001.JPG");
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0].payload, (std::vector<uint8_t>{0xC0, 0xC6, 0x2D, 0x00}));
    EXPECT_EQ(r[0].offset, 0u);
    EXPECT_EQ(size_reply(download("100MEDIA-IMG_0002.JPG")), 3000000u);
}

TEST_F(Download, MissingThmIsServedFromTheJpegThumbnail) {
    std::string thumb = pattern(9000, 3);
    add("100MEDIA", "IMG_0001.JPG", jpeg_file(camera_plan("M", "N", 8, 8, thumb)));
    add("100MEDIA", "low.jpg", jpeg_file(camera_plan("M", "N", 8, 8, thumb.substr(0, 500))));
    add("100MEDIA", "a.JPG", jpeg_file(camera_plan("M", "N", 8, 8, thumb)));
    add("100MEDIA", "bare.JPG", jpeg_file(camera_plan("M", "N", 8, 8)));
    EXPECT_EQ(size_reply(download("100MEDIA-IMG_0001.thm")), 9000u);
    EXPECT_EQ(std::string(eb->thumbBuf, eb->thumbBuf + 9000), thumb);
    EXPECT_EQ(size_reply(download("100MEDIA-low.thm")), 500u);
    const char* refused[] = {"100MEDIA-IMG_0001.THM", "100MEDIA-a.b.thm", "100MEDIA-bare.thm",
                             "100MEDIA-none.thm", "100MEDIA-.thm"};
    for (const char* name : refused) {
        SCOPED_TRACE(name);
        EXPECT_EQ(ack_code(download(name)), ACK_NOT_FOUND);
        EXPECT_EQ(eb->thumbReady, 0);
    }
}

TEST_F(Download, FilesThatCannotBeServedAreRefused) {
    add("100MEDIA", "EMPTY.MP4", "");
    ASSERT_EQ(mkfifo((location + "/100MEDIA/PIPE.MP4").c_str(), 0600), 0);
    write_file(tmp.file("outside.bin"), "secret");
    ASSERT_EQ(symlink(tmp.file("outside.bin").c_str(), (location + "/100MEDIA/LINK.MP4").c_str()),
              0);
    make_dirs(location + "/100MEDIA/SUB.MP4");
    struct Case {
        std::string name;
        uint32_t code;
    } cases[] = {
        {"100MEDIA-NONE.MP4", ACK_NOT_FOUND},
        {"100MEDIA-" + std::string(1015, 'n'), ACK_NOT_FOUND},  // 1024 bytes
        {"100MEDIA-EMPTY.MP4", ACK_FAILED},
        {"100MEDIA-PIPE.MP4", ACK_FAILED},
        {"100MEDIA-LINK.MP4", ACK_FAILED},
        {"100MEDIA-SUB.MP4", ACK_FAILED},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(ack_code(download(c.name)), c.code);
        EXPECT_EQ(eb->fileFd, -1);
        EXPECT_EQ(eb->fileOpened, 0);
    }
}

// Files a careless resolution would reach, all outside the media directories.
TEST_F(Download, NamesThatLeaveTheMediaDirectoriesTouchNothing) {
    write_file(card + "/secret.txt", "card root");
    write_file(location + "/secret.txt", "location");
    write_file(tmp.file("secret.txt"), "outside");
    add("100MEDIA", "IMG.JPG", "x");
    const char* names[] = {"..-secret.txt",
                           "100MEDIA-..",
                           "100MEDIA-.",
                           ".-secret.txt",
                           "secret.txt",
                           "..-..-secret.txt",
                           "100MEDIA-../../secret.txt",
                           "../..-secret.txt",
                           "-secret.txt"};
    for (const char* name : names) {
        SCOPED_TRACE(name);
        EXPECT_EQ(ack_code(download(name)), ACK_NOT_FOUND);
        EXPECT_EQ(ack_code(metadata(name)), ACK_NOT_FOUND);
        EXPECT_EQ(eb->fileFd, -1);
    }
    // With a prefix field, and before any configuration (empty location).
    ASSERT_EQ(configure(4096, 4, card, true), ACK_DONE);
    EXPECT_EQ(ack_code(download("0-..-secret.txt")), ACK_NOT_FOUND);
    eb.reset(new CEventBase);
    EXPECT_EQ(ack_code(download("etc-hostname")), ACK_NOT_FOUND);
    EXPECT_EQ(ack_code(metadata("etc-hostname")), ACK_NOT_FOUND);
    EXPECT_EQ(eb->fileFd, -1);
}

class Capability : public Download {
protected:
    std::string data = pattern(10000, 5);
    Replies cap() {
        eb->process_cap_get(sv[0]);
        return replies();
    }
};

TEST_F(Capability, OneBurstFromOffsetZero) {
    write_file(capPath, data);
    struct Case {
        uint16_t blocks;
        std::vector<size_t> sizes;
        std::vector<uint32_t> markers;
    } cases[] = {{4, {4096, 4096, 1808}, {0, 0, 1}}, {2, {4096, 4096}, {0, 0}}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.blocks);
        ASSERT_EQ(configure(4096, c.blocks), ACK_DONE);
        eb->readOffset = 777;  // left by an earlier stream; the request starts afresh
        Replies r = cap();
        ASSERT_EQ(r.size(), c.sizes.size());
        for (size_t i = 0; i < r.size(); ++i) {
            EXPECT_EQ(r[i].msgType, 18u);
            EXPECT_EQ(r[i].marker, c.markers[i]);
            EXPECT_EQ(r[i].offset, 4096u * i);
            EXPECT_EQ(bytes_of(r[i]), data.substr(4096 * i, c.sizes[i]));
        }
        EXPECT_EQ(eb->readOffset, 0u);
    }
}

TEST_F(Capability, MissingOrEmptyFileIsRefused) {
    EXPECT_EQ(ack_code(cap()), ACK_NOT_FOUND);
    write_file(capPath, "");
    EXPECT_EQ(ack_code(cap()), ACK_FAILED);
    EXPECT_EQ(eb->fileFd, -1);
}

TEST_F(Capability, RepeatedRequestsHoldAtMostOneDescriptor) {
    write_file(capPath, data);
    add("100MEDIA", "CLIP.MP4", pattern(50000));
    int before = open_descriptors();
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(cap().size(), 3u);
        EXPECT_EQ(size_reply(download("100MEDIA-CLIP.MP4")), i == 0 ? 50000u : 10000u);
        EXPECT_EQ(ack_code(download("100MEDIA-NONE.MP4")), ACK_NOT_FOUND);
        EXPECT_LE(open_descriptors(), before + 1);
    }
    eb.reset();
    EXPECT_EQ(open_descriptors(), before);
}

}  // namespace
}  // namespace transfertest
}  // namespace korvel

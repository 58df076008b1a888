// Download, capability and metadata requests: the EXIF thumbnail substitute,
// files and names that are refused, the capability burst and descriptors, metadata documents.
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "support/jpeg_builder.h"
#include "support/soak_client.h"
#include "transfer_fixture.h"

namespace korvel {
namespace transfertest {
namespace {

using ::testing::AllOf;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using testsupport::camera_plan;
using testsupport::jpeg_file;

using Download = TransferTest;

// A missing THM is served from the JPEG's thumbnail; metadata documents are the formatted print
// without its NUL: the name, then one record for a known type (which facts a record holds
// for each type is the media record's test).
TEST_F(Download, ThumbnailSubstituteAndMetadataDocuments) {
    std::string thumb = pattern(9000, 3);
    add("IMG_0001.JPG", jpeg_file(camera_plan("Maker", "Model", 640, 480, thumb)));
    add("low.jpg", jpeg_file(camera_plan("Lower", "Case", 64, 48, thumb.substr(0, 500))));
    add("a.JPG", jpeg_file(camera_plan("M", "N", 8, 8, thumb)));
    add("bare.JPG", jpeg_file(camera_plan("M", "N", 8, 8)));
    add("x.THM", "thumb");
    add(".hidden", "x");
    EXPECT_EQ(answer(download("100MEDIA-IMG_0001.thm"), MSG_DOWNLOAD), 9000u);
    EXPECT_EQ(answer(download("100MEDIA-low.thm"), MSG_DOWNLOAD), 500u);
    for (const char* name : {"100MEDIA-IMG_0001.THM", "100MEDIA-a.b.thm", "100MEDIA-bare.thm",
                             "100MEDIA-none.thm", "100MEDIA-.thm"}) {
        EXPECT_EQ(answer(download(name), MSG_DOWNLOAD), ACK_NOT_FOUND) << name;
        EXPECT_EQ(eb->thumbReady, 0) << name;
    }
    EXPECT_TRUE(metadata("100MEDIA-.hidden").empty());
    struct Case {
        std::string name, record;  // record empty: an empty "metadata" array
    } cases[] = {{"IMG_0001.JPG", "\"imgmaker\":\t\"Maker\""},
                 {"low.jpg", "\"imgmodle\":\t\"Case\""},
                 {"x.THM", ""}};
    for (const Case& c : cases) {
        std::string name = "100MEDIA-" + c.name;
        std::string head = "{\n\t\"filename\":\t\"" + name + "\",\n\t\"metadata\":\t[";
        std::string text = burst(metadata(name), MSG_METADATA, {1});
        if (c.record.empty()) {
            EXPECT_EQ(text, head + "]\n}");
        } else {
            EXPECT_THAT(text, AllOf(StartsWith(head), EndsWith("}]\n}"), HasSubstr(c.record),
                                    HasSubstr("\"fileName\":\t\"" + name + "\"")));
        }
    }
}

// Names that would reach files outside the media directories are refused by every request;
// links and FIFOs are the hostile-file tests', missing and empty files the app tool test's.
TEST_F(Download, FilesAndNamesThatCannotBeServedAreRefused) {
    write_file(card + "/secret.txt", "card root");
    write_file(location + "/secret.txt", "location");
    write_file(tmp.file("secret.txt"), "outside");
    make_dirs(location + "/100MEDIA/SUB.MP4");
    const std::string longName = "100MEDIA-" + std::string(1015, 'n');  // 1024 bytes
    struct Case {
        std::string name;
        uint32_t code;
    } files[] = {{longName, ACK_NOT_FOUND}, {"100MEDIA-SUB.MP4", ACK_NOT_FOUND}};
    for (const Case& c : files) {
        EXPECT_EQ(answer(download(c.name), MSG_DOWNLOAD), c.code) << c.name;
        EXPECT_EQ(std::make_tuple(eb->fileFd, eb->fileOpened), std::make_tuple(-1, 0)) << c.name;
    }
    EXPECT_EQ(answer(metadata(longName), MSG_METADATA), ACK_BAD_NAME);
    for (const char* name : {"..-secret.txt", "100MEDIA-..", ".-secret.txt", "secret.txt",
                             "100MEDIA-../../secret.txt", "../..-secret.txt", "-secret.txt"}) {
        EXPECT_EQ(answer(download(name), MSG_DOWNLOAD), ACK_NOT_FOUND) << name;
        EXPECT_EQ(answer(metadata(name), MSG_METADATA), ACK_NOT_FOUND) << name;
    }
    ASSERT_EQ(configure(4096, 4, card, true), ACK_DONE);
    EXPECT_EQ(answer(download("0-..-secret.txt"), MSG_DOWNLOAD), ACK_NOT_FOUND);
    eb.reset(new CEventBase);  // no location yet
    EXPECT_EQ(answer(download("etc-hostname"), MSG_DOWNLOAD), ACK_NOT_FOUND);
    EXPECT_EQ(answer(metadata("etc-hostname"), MSG_METADATA), ACK_NOT_FOUND);
}

TEST_F(Download, CapabilityIsOneBurstFromZeroAndHoldsOneDescriptor) {
    EXPECT_EQ(answer((eb->process_cap_get(sv[0]), replies()), MSG_CAPABILITY), ACK_NOT_FOUND);
    write_file(capPath, "");
    EXPECT_EQ(answer((eb->process_cap_get(sv[0]), replies()), MSG_CAPABILITY), ACK_FAILED);
    std::string data = pattern(10000, 5);
    write_file(capPath, data);
    add("CLIP.MP4", pattern(50000));
    int before = testsupport::open_fd_count();
    for (int i = 0; i < 5; ++i) {
        eb->readOffset = 777;  // left by an earlier stream; the request starts afresh
        eb->process_cap_get(sv[0]);
        EXPECT_EQ(burst(replies(), MSG_CAPABILITY, {0, 0, 1}), data);
        EXPECT_EQ(eb->readOffset, 0u);
        EXPECT_EQ(answer(download("100MEDIA-CLIP.MP4"), MSG_DOWNLOAD), i == 0 ? 50000u : 10000u);
        EXPECT_LE(testsupport::open_fd_count(), before + 1);
    }
    eb.reset();
    EXPECT_EQ(testsupport::open_fd_count(), before);
}

}  // namespace
}  // namespace transfertest
}  // namespace korvel

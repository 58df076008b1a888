// Strange files on the card against the running server: links that lead off the card,
// FIFOs, MP4s built to hold the reader, deletes a crash left half done and files too large
// for a 32-bit size. Each is answered promptly as a missing or refused file, nothing off
// the card is touched, and a well-behaved app is served afterwards.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "app/client.h"
#include "core/card_fs.h"
#include "core/packet.h"
#include "delete/deleter.h"
#include "media/mp4_reader.h"
#include "support/jpeg_builder.h"
#include "support/mp4_builder.h"
#include "support/soak_client.h"
#include "support/temp_dir.h"
#include "support/test_server.h"

namespace korvel {
namespace {

using namespace testsupport;
using ::testing::HasSubstr;
using ::testing::Not;

class HostileFiles : public ServedCard {
protected:
    std::string outside = tmp.file("outside");
    std::string good = jpeg_file(camera_plan("Good", "G", 64, 48, small_jpeg()));
    std::string clip = mp4_file(moov(trak({})));
    app::Client c;
    static constexpr int kWaitMs = 3000;  // every request is answered well within this

    void SetUp() override {
        ServedCard::SetUp();
        make_dirs(outside);
        add("GOOD.JPG", good);
    }
    void TearDown() override {
        testing_seam::force_component_walk(false);
        c.close_connection();
        ServedCard::TearDown();
    }
    void start() {
        ServedCard::start();
        ASSERT_TRUE(connect_app(c, server->port(), peer++));
        ASSERT_TRUE(configure_app(c, 4096, 16, kWaitMs));
    }
    // korvel-app's output, or its exit code when it fails.
    std::string app_out(std::vector<std::string> args) {
        AppRun run = app(args);
        return run.rc == 0 ? run.out : "exit " + std::to_string(run.rc);
    }
    std::string metadata(const std::string& name) { return app_out({"meta", name}); }
    std::string catalogue() { return app_out({"ls", "--json"}); }
    void expect_good_served() { expect_served(1, "100MEDIA-GOOD.JPG", good); }
};

const std::string NOT_FOUND = "exit 10";  // korvel-app's code for 0xFB02

// Both ways of resolving beneath the card: the kernel's, and the walk older kernels get.
TEST_F(HostileFiles, LinksNeverReachOffTheCard) {
    std::string photo = jpeg_file(camera_plan("Out", "O", 8, 8, small_jpeg()));
    write_file(outside + "/IMG_0001.JPG", photo);
    write_file(outside + "/VID.MP4", clip);
    ASSERT_EQ(symlink(outside.c_str(), (dcim + "/105MEDIA").c_str()), 0);
    ASSERT_EQ(symlink((outside + "/IMG_0001.JPG").c_str(), (media + "/LINK.JPG").c_str()), 0);
    ASSERT_EQ(symlink((outside + "/VID.MP4").c_str(), (media + "/LINK.MP4").c_str()), 0);
    start();
    for (bool walk : {false, true}) {
        testing_seam::force_component_walk(walk);
        for (const char* name : {"105MEDIA-IMG_0001.JPG", "105MEDIA-IMG_0001.thm",
                                 "100MEDIA-LINK.JPG", "100MEDIA-LINK.thm", "100MEDIA-LINK.MP4"}) {
            EXPECT_EQ(download_answer(c, name), ACK_NOT_FOUND) << name << " walk " << walk;
            EXPECT_EQ(metadata(name), NOT_FOUND) << name << " walk " << walk;
        }
        EXPECT_THAT(catalogue(), AllOf(HasSubstr("GOOD.JPG"), Not(HasSubstr("LINK")),
                                       Not(HasSubstr("105MEDIA"))));
        // The linked directory is a bad name; linked files are passed over like missing ones.
        ASSERT_EQ(c.request_delete(R"({"media":["100MEDIA-LINK.JPG","100MEDIA-LINK.MP4",)"
                                   R"("105MEDIA-IMG_0001.JPG","105MEDIA-VID.MP4"]})"),
                  app::CLIENT_OK);
        for (uint32_t code : {ACK_DONE, ACK_BAD_NAME, ACK_BAD_NAME}) {
            app::Reply r;
            ASSERT_EQ(c.read_reply_of(MSG_DELETE, r, kWaitMs), app::CLIENT_OK);
            EXPECT_EQ(r.ackCode, code);
        }
    }
    EXPECT_EQ(read_file(outside + "/IMG_0001.JPG"), photo);
    EXPECT_EQ(read_file(outside + "/VID.MP4"), clip);
    expect_good_served();
}

TEST_F(HostileFiles, FifosAreMissingFilesAndNothingWaitsOnThem) {
    ASSERT_EQ(mkfifo((media + "/IMG_0001.JPG").c_str(), 0600), 0);
    ASSERT_EQ(mkfifo((root + "/krv_log.conf").c_str(), 0600), 0);  // read by every trace call
    ASSERT_EQ(mkfifo(tmp.file("cap.xml").c_str(), 0600), 0);
    start();
    for (const char* name : {"100MEDIA-IMG_0001.JPG", "100MEDIA-IMG_0001.thm"}) {
        EXPECT_EQ(download_answer(c, name), ACK_NOT_FOUND) << name;
        EXPECT_EQ(metadata(name), NOT_FOUND) << name;
    }
    app::Reply cap;
    ASSERT_EQ(c.request_capability(), app::CLIENT_OK);
    ASSERT_EQ(c.read_reply_of(MSG_CAPABILITY, cap, kWaitMs), app::CLIENT_OK);
    EXPECT_EQ(cap.ackCode, ACK_NOT_FOUND);
    EXPECT_THAT(catalogue(), AllOf(HasSubstr("GOOD.JPG"), Not(HasSubstr("IMG_0001"))));
    expect_good_served();
}

// Past its caps the reader gives up at once: the file is described without video facts.
TEST_F(HostileFiles, Mp4ReaderStopsAtItsCaps) {
    std::string m = moov(trak({}));
    std::string frees;
    for (uint32_t i = 0; i + 2 < MP4_TOP_BOXES_MAX; ++i) {
        frees += be32(8) + "free";
    }
    struct Case {
        const char* name;
        std::string bytes;
        bool described;
    } cases[] = {{"GOOD.MP4", clip, true},
                 {"FREES.MP4", ftyp() + frees + m, true},  // the moov is the last box looked at
                 {"MORE.MP4", ftyp() + frees + be32(8) + "free" + m, false}};
    for (const Case& k : cases) {
        add(k.name, k.bytes);
    }
    start();
    for (const Case& k : cases) {
        std::string width = k.described ? "640" : "";
        EXPECT_THAT(metadata(std::string("100MEDIA-") + k.name),
                    HasSubstr("\"imgWidth\":\t\"" + width + "\""))
            << k.name;
    }
    expect_good_served();
}

TEST_F(HostileFiles, DeletesLeftInTheHoldingDirectoryAreFinishedAtStartUp) {
    if (mdeletehanlder != nullptr) {
        GTEST_SKIP() << "this process started its deleter already";
    }
    std::string holding = dcim + "/tmp_delete";
    make_dirs(holding);
    write_file(holding + "/OLD.MP4", "old");
    write_file(holding + "/OLD.2nd", "old");
    write_file(outside + "/KEEP.MP4", "keep");
    ASSERT_EQ(symlink((outside + "/KEEP.MP4").c_str(), (holding + "/LINK.MP4").c_str()), 0);
    start();
    EXPECT_TRUE(
        eventually([&] { return !exists(holding + "/OLD.MP4") && !exists(holding + "/OLD.2nd"); }));
    EXPECT_EQ(read_file(outside + "/KEEP.MP4"), "keep");
    expect_good_served();
}

TEST_F(HostileFiles, FilesOf4GiBOrMoreAreRefusedNotCut) {
    const uint64_t hugeSize = (uint64_t(1) << 32) + 1000;
    ASSERT_EQ(truncate(add("HUGE.MP4", "").c_str(), off_t(hugeSize)), 0);  // sparse
    ASSERT_EQ(truncate(add("EDGE.MP4", "").c_str(), off_t(UINT32_MAX)), 0);
    start();
    EXPECT_EQ(download_answer(c, "100MEDIA-HUGE.MP4"), ACK_TOO_LARGE);
    EXPECT_EQ(download_answer(c, "100MEDIA-EDGE.MP4"), UINT32_MAX);  // the largest announceable
    std::string size = "\"fileSize\":\t\"" + std::to_string(hugeSize) + "\"";
    EXPECT_THAT(catalogue(), HasSubstr(size));
    EXPECT_THAT(metadata("100MEDIA-HUGE.MP4"), HasSubstr(size));
    expect_good_served();
}

}  // namespace
}  // namespace korvel

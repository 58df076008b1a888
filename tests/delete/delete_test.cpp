// The delete request as the worker runs it (replies over a socketpair, queued paths in a
// deleter never started, trace lines from standard output), then the deleter thread alone.
// A holding directory that cannot be made is a fault test (a full card).
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "client/event_base.h"
#include "core/config.h"
#include "core/packet.h"
#include "delete/deleter.h"
#include "support/temp_dir.h"

namespace korvel {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testsupport::exists;

size_t count_of(const std::string& text, const std::string& what) {
    std::regex re(what);
    return std::distance(std::sregex_iterator(text.begin(), text.end(), re), {});
}

size_t entries_in(const std::string& dir) {
    std::error_code ec;
    return std::distance(std::filesystem::directory_iterator(dir, ec), {});
}

class DeleteRequestTest : public ::testing::Test {
protected:
    void SetUp() override {
        testsupport::make_dirs(media);
        testsupport::make_dirs(outside);
        testing_seam::set_sd_root(card.c_str());
        testsupport::write_file(card + "/krv_log.conf", "1,0\n");
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
        mdeletehanlder = &queued;
        set_location(dcim);
    }
    void TearDown() override {
        ev.reset();
        mdeletehanlder = nullptr;
        close(sv[0]);
        close(sv[1]);
    }
    void set_location(const std::string& loc) {
        korvel::MutexLock lock(ev->locationMutex);
        snprintf(ev->resourceLocation, sizeof ev->resourceLocation, "%s", loc.c_str());
    }
    // One request as the worker runs it; returns the codes of its replies, trace in `out`.
    std::vector<uint16_t> run(std::string json) {
        testing::internal::CaptureStdout();
        ev->process_file_delete(sv[0], &json[0]);
        out = testing::internal::GetCapturedStdout();
        std::vector<uint16_t> codes;
        CPacket p;
        struct pollfd pfd = {sv[1], POLLIN, 0};
        while (poll(&pfd, 1, 0) > 0 && p.readFrom(sv[1]) > 0) {
            EXPECT_EQ(p.getReqType() << 16 | p.getMarker() << 8 | p.getMsgType(), 0x10101u);
            EXPECT_EQ(p.getOffset() | p.getAckValue() | p.getAckFlag() << 16, 0x10000u);
            codes.push_back(static_cast<uint16_t>(p.getAckCode()));
        }
        return codes;
    }
    std::string in_media(const std::string& name) const { return media + "/" + name; }
    std::string held(const std::string& name) const { return dcim + "/tmp_delete/" + name; }
    void put_media(const std::vector<std::string>& names) const {
        for (const std::string& n : names) {
            testsupport::write_file(in_media(n), n);
        }
    }

    testsupport::TempDir tmp;
    std::string card = tmp.file("card"), dcim = card + "/DCIM", media = dcim + "/100MEDIA";
    std::string outside = tmp.file("outside"), out;
    int sv[2] = {-1, -1};
    DWF_DELHandler queued;
    std::unique_ptr<CEventBase> ev{new CEventBase()};
};

TEST_F(DeleteRequestTest, CompanionsFollowTheirPhotoOrVideoAndOtherNamesAreSkipped) {
    const std::string maxBase(127, 'M');  // the longest base still handled
    const std::vector<std::string> skipped = {"IMG.JPG.bak", "IMG.JPEG", "B",     ".hidden.JPG",
                                              "A.B.MP4",     "X.",       "T.txt", "L.JPEGXXXX"};
    put_media(skipped);
    put_media({"IMG_0001.JPG", "IMG_0001.thm", "IMG_0001.THM", "IMG_0001.2nd", "VID_0002.mp4",
               "VID_0002.2nd", "VID_0002.THM", "VID_0002.thm", "CLIP.MOV", maxBase + ".jpg"});
    // Key in capitals, items that are not names, bytes after the first complete value.
    std::string names = R"(1, null, {"n":"100MEDIA-B"}, ["100MEDIA-IMG.JPEG"], "100MEDIA-)" +
                        maxBase + R"(.jpg", "100MEDIA-CLIP.MOV")";
    for (const std::string& n : skipped) {
        names += ",\"100MEDIA-" + n + "\"";
    }
    EXPECT_THAT(run(R"({"MEDIA":["100MEDIA-IMG_0001.JPG","100MEDIA-VID_0002.mp4",)" + names +
                    "]} trailing"),
                ElementsAre(ACK_DONE));
    EXPECT_EQ(entries_in(media), 1u + skipped.size());
    EXPECT_TRUE(exists(in_media("IMG_0001.2nd")));  // photos have no second stream
    EXPECT_EQ(testsupport::read_file(held("VID_0002.mp4")), "VID_0002.mp4");
    EXPECT_EQ(testsupport::read_file(held("VID_0002.2nd")), "VID_0002.2nd");
    EXPECT_EQ(entries_in(dcim + "/tmp_delete"), 3u);
    // A missing .2nd is still queued; the deleter passes over it.
    EXPECT_THAT(queued.pendingNames, ElementsAre(held("VID_0002.mp4"), held("VID_0002.2nd"),
                                                 held("CLIP.MOV"), held("CLIP.2nd")));
    EXPECT_EQ(count_of(out, "move: \\[json_file_delete:1114\\]cost time \\d+ms\n"), 1u) << out;
}

TEST_F(DeleteRequestTest, PayloadsWithoutAMediaArrayGetOnlyTheFirstReply) {
    put_media({"IMG.JPG"});
    for (std::string payload : {"not json", R"({"other":["100MEDIA-IMG.JPG"]})",
                                R"({"media":"100MEDIA-IMG.JPG"})", R"({"media":[]})"}) {
        EXPECT_THAT(run(payload), ElementsAre(ACK_DONE)) << payload;
        // Only a "media" array, even an empty one, gets as far as timing.
        EXPECT_EQ(count_of(out, "cost time"), payload == R"({"media":[]})") << out;
    }
    EXPECT_TRUE(exists(in_media("IMG.JPG")));
}

TEST_F(DeleteRequestTest, NothingOffTheLocationIsRenamedOrUnlinked) {
    const std::vector<std::string> sentinels = {outside + "/secret.JPG", outside + "/secret.MP4",
                                                card + "/secret.JPG", dcim + "/secret.MP4"};
    for (const std::string& s : sentinels) {
        testsupport::write_file(s, "keep");
    }
    ASSERT_EQ(symlink("../../outside", (dcim + "/LINKMEDIA").c_str()), 0);
    EXPECT_THAT(run(R"({"media":["100MEDIA-../../../outside/secret.JPG", "..-secret.JPG",)"
                    R"(".-secret.MP4", "100MEDIA-..", "LINKMEDIA-secret.MP4"]})"),
                ElementsAre(ACK_DONE, ACK_BAD_NAME, ACK_BAD_NAME, ACK_BAD_NAME, ACK_BAD_NAME,
                            ACK_BAD_NAME));
    // A holding directory that leads off the card is not used: the video goes at once.
    testsupport::make_dirs(outside + "/hold");
    ASSERT_EQ(symlink("../../outside/hold", (dcim + "/tmp_delete").c_str()), 0);
    put_media({"V.MP4"});
    EXPECT_THAT(run(R"({"media":["100MEDIA-V.MP4"]})"), ElementsAre(ACK_DONE, ACK_BAD_LOCATION));
    EXPECT_EQ(entries_in(outside + "/hold"), 0u);
    EXPECT_FALSE(exists(in_media("V.MP4")));
    // Before any configuration the location is empty and every name is refused.
    set_location("");
    put_media({"IMG.JPG"});
    EXPECT_THAT(run(R"({"media":["100MEDIA-IMG.JPG"]})"), ElementsAre(ACK_DONE, ACK_BAD_NAME));
    EXPECT_TRUE(exists(in_media("IMG.JPG")));
    for (const std::string& s : sentinels) {
        EXPECT_EQ(testsupport::read_file(s), "keep") << s;
    }
    EXPECT_THAT(queued.pendingNames, IsEmpty());
}

TEST(Deleter, PassesOverMissingAndEmptyPathsAndStopsEvenRightAfterStart) {
    testsupport::TempDir dir;
    testsupport::write_file(dir.file("V.MP4"), "x");
    testing_seam::set_sd_root(dir.path().c_str());  // the deleter only removes files on the card
    {
        DWF_DELHandler d;
        d.queue_path(dir.file("never-there.MP4"));
        d.queue_path("");  // a wake-up text: removes nothing and must not end the thread
        d.queue_path(dir.file("V.MP4"));
        d.start();
        EXPECT_TRUE(testsupport::eventually([&] { return !exists(dir.file("V.MP4")); }));
    }
    for (int i = 0; i < 200; ++i) {  // the thread may not run yet; join() must still return
        DWF_DELHandler d;
        d.start();
    }
}

}  // namespace
}  // namespace korvel

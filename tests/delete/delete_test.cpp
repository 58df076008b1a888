// The delete request as the worker runs it (replies over a socketpair, queued paths in a
// deleter never started). The deleter thread's removals are the hostile-file test's (held
// deletes finished at start-up); a holding directory that cannot be made is the full-card
// fault test's; arbitrary request texts are fuzz_delete's.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "client/event_base.h"
#include "core/config.h"
#include "core/packet.h"
#include "delete/deleter.h"
#include "support/temp_dir.h"
#include "transfer/transfer_fixture.h"

namespace korvel {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testsupport::exists;

size_t entries_in(const std::string& dir) {
    std::error_code ec;
    return std::distance(std::filesystem::directory_iterator(dir, ec), {});
}

class DeleteRequestTest : public transfertest::TransferTest {
protected:
    void SetUp() override {
        TransferTest::SetUp();
        testsupport::make_dirs(outside);
        mdeletehanlder = &queued;
    }
    void TearDown() override {
        TransferTest::TearDown();
        mdeletehanlder = nullptr;
    }
    // One request as the worker runs it; returns the codes of its replies.
    std::vector<uint16_t> run(std::string json) {
        eb->process_file_delete(sv[0], &json[0]);
        std::vector<uint16_t> codes;
        for (const app::Reply& r : replies()) {
            EXPECT_EQ(std::make_tuple(r.reqType, r.marker, r.msgType, r.offset, r.ackValue),
                      std::make_tuple(1u, 1u, 1u, 0u, 0u));
            codes.push_back(static_cast<uint16_t>(r.ackCode));
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

    std::string dcim = location, media = dcim + "/100MEDIA", outside = tmp.file("outside");
    DWF_DELHandler queued;
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
    eb.reset(new CEventBase);
    put_media({"IMG.JPG"});
    EXPECT_THAT(run(R"({"media":["100MEDIA-IMG.JPG"]})"), ElementsAre(ACK_DONE, ACK_BAD_NAME));
    EXPECT_TRUE(exists(in_media("IMG.JPG")));
    for (const std::string& s : sentinels) {
        EXPECT_EQ(testsupport::read_file(s), "keep") << s;
    }
    EXPECT_THAT(queued.pendingNames, IsEmpty());
}

}  // namespace
}  // namespace korvel

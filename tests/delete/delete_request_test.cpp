// The delete request run as the worker runs it, against a card in a temporary directory:
// replies read from a socketpair, queued paths read from a deleter that is never started.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/fsuid.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "client/event_base.h"
#include "core/config.h"
#include "core/packet.h"
#include "delete/delete_fixture.h"
#include "delete/deleter.h"

namespace korvel {
namespace {

using deletetest::count_of;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testsupport::exists;
using testsupport::read_file;

const char* const TIME_LINE = "move: [json_file_delete:1114]cost time ";

class DeleteRequestTest : public ::testing::Test {
protected:
    void SetUp() override {
        testing_seam::set_sd_root(tree.card.c_str());
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
        previous = mdeletehanlder;
        mdeletehanlder = &queued;
        ev.reset(new CEventBase());
        set_location(tree.dcim, 0, -1);
    }
    void TearDown() override {
        ev.reset();
        mdeletehanlder = previous;
        close(sv[0]);
        close(sv[1]);
    }
    void set_location(const std::string& loc, uint8_t userDef, int32_t id) {
        std::lock_guard<std::mutex> lock(ev->locationMutex);
        snprintf(ev->resourceLocation, sizeof ev->resourceLocation, "%s", loc.c_str());
        ev->userDefLocation = userDef;
        ev->resourceLocationId = id;
    }
    // One request as the worker runs it; returns the codes of its replies.
    std::vector<uint16_t> run(const std::string& json) {
        std::unique_ptr<char[]> copy(new char[json.size() + 1]);
        memcpy(copy.get(), json.c_str(), json.size() + 1);
        ev->process_file_delete(sv[0], copy.get());
        std::vector<uint16_t> codes;
        std::unique_ptr<CPacket> p(new CPacket());
        struct pollfd pfd = {sv[1], POLLIN, 0};
        while (poll(&pfd, 1, 0) > 0 && p->readFrom(sv[1]) > 0) {
            EXPECT_EQ(p->getReqType() << 16 | p->getMarker() << 8 | p->getMsgType(), 0x10101u);
            EXPECT_EQ(p->getOffset() | p->getAckValue(), 0u);
            EXPECT_EQ(p->getAckFlag(), 1u);
            codes.push_back(static_cast<uint16_t>(p->getAckCode()));
        }
        return codes;
    }
    std::vector<std::string> queued_paths() const {
        return {queued.pendingNames.begin(), queued.pendingNames.end()};
    }

    deletetest::CardTree tree;
    int sv[2] = {-1, -1};
    DWF_DELHandler queued;  // never started: the test reads what was queued
    DWF_DELHandler* previous = nullptr;
    std::unique_ptr<CEventBase> ev;
};

TEST_F(DeleteRequestTest, CompanionsFollowTheirPhotoOrVideo) {
    const std::string maxBase(127, 'M');  // the longest base that is still handled
    tree.put_media({"IMG_0001.JPG", "IMG_0001.thm", "IMG_0001.THM", "IMG_0001.2nd", "VID_0002.mp4",
                    "VID_0002.2nd", "VID_0002.THM", "VID_0002.thm", "CLIP.MOV", maxBase + ".jpg"});
    tree.enable_trace();
    testing::internal::CaptureStdout();
    // Key in capitals; bytes after the first complete value are ignored.
    auto acks = run(R"({"MEDIA":["100MEDIA-IMG_0001.JPG","100MEDIA-VID_0002.mp4",)"
                    R"("100MEDIA-CLIP.MOV","100MEDIA-)" +
                    maxBase + R"(.jpg"]} trailing)");
    std::string out = testing::internal::GetCapturedStdout();

    EXPECT_THAT(acks, ElementsAre(ACK_DONE));
    EXPECT_EQ(deletetest::entries_in(tree.media), 1u);
    EXPECT_TRUE(exists(tree.in_media("IMG_0001.2nd")));  // photos have no second stream
    EXPECT_EQ(read_file(tree.in_holding("VID_0002.mp4")), "VID_0002.mp4");  // moved whole
    EXPECT_EQ(read_file(tree.in_holding("VID_0002.2nd")), "VID_0002.2nd");
    EXPECT_EQ(deletetest::entries_in(tree.holding), 3u);
    // A missing .2nd is still queued; the deleter passes over it.
    EXPECT_THAT(queued_paths(),
                ElementsAre(tree.in_holding("VID_0002.mp4"), tree.in_holding("VID_0002.2nd"),
                            tree.in_holding("CLIP.MOV"), tree.in_holding("CLIP.2nd")));
    EXPECT_EQ(count_of(out, TIME_LINE), 1u) << out;
}

TEST_F(DeleteRequestTest, SkippedNamesAndBadPayloadsTouchNothing) {
    const std::vector<std::string> files = {
        "IMG.JPG.bak", "IMG.JPEG", "B",     ".hidden.JPG",
        "A.B.MP4",     "X.",       "T.txt", std::string(128, 'L') + ".JPG"};
    tree.put_media(files);
    tree.enable_trace();
    std::string names = R"(1, null, true, {"n":"100MEDIA-B"}, ["100MEDIA-IMG.JPEG"])";
    for (const std::string& n : files) {
        names += ",\"100MEDIA-" + n + "\"";
    }
    const struct {
        std::string payload;
        size_t timeLines;  // only a "media" array gets as far as timing
    } cases[] = {
        {"not json", 0},
        {"", 0},
        {R"({"other":["100MEDIA-IMG.JPEG"]})", 0},
        {R"({"media":"100MEDIA-IMG.JPEG"})", 0},
        {R"(["100MEDIA-IMG.JPEG"])", 0},
        {R"({"media":[]})", 1},
        {R"({"media":[)" + names + "]}", 1},
    };
    for (const auto& c : cases) {
        testing::internal::CaptureStdout();
        EXPECT_THAT(run(c.payload), ElementsAre(ACK_DONE)) << c.payload;
        EXPECT_EQ(count_of(testing::internal::GetCapturedStdout(), TIME_LINE), c.timeLines);
    }
    for (const std::string& n : files) {
        EXPECT_TRUE(exists(tree.in_media(n))) << n;
    }
    EXPECT_FALSE(exists(tree.holding));
    EXPECT_THAT(queued_paths(), IsEmpty());
}

TEST_F(DeleteRequestTest, UncreatableHoldingDirGivesBadLocationAndUnlinksAtOnce) {
    tree.put_media({"VID.MP4", "VID.2nd", "VID.THM", "VID.thm"});
    tree.enable_trace();
    // A read-only DCIM. Root ignores directory modes, so the test thread gives up its
    // file-system identity (fsuid is per thread) while the request runs.
    for (const auto& mode : {std::make_pair(tree.tmp.path(), 0755),
                             {tree.card, 0755},
                             {tree.media, 0777},
                             {tree.dcim, 0555}}) {
        ASSERT_EQ(chmod(mode.first.c_str(), mode.second), 0);
    }
    const bool asRoot = geteuid() == 0;
    testing::internal::CaptureStdout();
    if (asRoot) {
        setfsuid(65534);
    }
    auto acks = run(R"({"media":["100MEDIA-VID.MP4"]})");
    if (asRoot) {
        setfsuid(0);
    }
    std::string out = testing::internal::GetCapturedStdout();

    EXPECT_THAT(acks, ElementsAre(ACK_DONE, ACK_BAD_LOCATION));
    EXPECT_EQ(deletetest::entries_in(tree.media), 0u);
    EXPECT_FALSE(exists(tree.holding));
    EXPECT_THAT(queued_paths(), IsEmpty());
    EXPECT_EQ(count_of(out, "mkdir tmp_delete failed: Permission denied"), 10u) << out;
}

TEST_F(DeleteRequestTest, NothingOffTheLocationIsRenamedOrUnlinked) {
    const std::vector<std::string> sentinels = {
        tree.outside + "/secret.JPG", tree.outside + "/secret.MP4", tree.card + "/secret.JPG",
        tree.dcim + "/secret.MP4"};
    for (const std::string& s : sentinels) {
        testsupport::write_file(s, "keep");
    }
    ASSERT_EQ(symlink("../../outside", (tree.dcim + "/LINKMEDIA").c_str()), 0);
    EXPECT_THAT(run(R"({"media":["100MEDIA-../../../outside/secret.JPG", "..-secret.JPG",)"
                    R"(".-secret.MP4", "100MEDIA-..", "LINKMEDIA-secret.MP4"]})"),
                ElementsAre(ACK_DONE, ACK_BAD_NAME, ACK_BAD_NAME, ACK_BAD_NAME, ACK_BAD_NAME,
                            ACK_BAD_NAME));
    EXPECT_FALSE(exists(tree.holding));

    // A holding directory that leads off the card is not used: the video goes at once.
    testsupport::make_dirs(tree.outside + "/hold");
    ASSERT_EQ(symlink("../../outside/hold", tree.holding.c_str()), 0);
    tree.put_media({"V.MP4"});
    EXPECT_THAT(run(R"({"media":["100MEDIA-V.MP4"]})"), ElementsAre(ACK_DONE, ACK_BAD_LOCATION));
    EXPECT_EQ(deletetest::entries_in(tree.outside + "/hold"), 0u);
    EXPECT_FALSE(exists(tree.in_media("V.MP4")));

    // Before any configuration the location is empty and every name is refused.
    set_location("", 0, -1);
    tree.put_media({"IMG.JPG"});
    EXPECT_THAT(run(R"({"media":["100MEDIA-IMG.JPG"]})"), ElementsAre(ACK_DONE, ACK_BAD_NAME));
    EXPECT_TRUE(exists(tree.in_media("IMG.JPG")));
    for (const std::string& s : sentinels) {
        EXPECT_EQ(read_file(s), "keep") << s;
    }
    EXPECT_THAT(queued_paths(), IsEmpty());
}

// What a download holds while its file is deleted: an open descriptor and a shared
// mapping. Moving and unlinking must leave every mapped byte readable and unchanged.
TEST_F(DeleteRequestTest, MappedVideoKeepsItsBytesThroughMoveAndUnlink) {
    std::string bytes(3 * 4096 + 17, '\0');
    for (size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<char>(i * 131 + 7);
    }
    testsupport::write_file(tree.in_media("V.MP4"), bytes);
    int fd = open(tree.in_media("V.MP4").c_str(), O_RDONLY);
    void* map = mmap(nullptr, bytes.size(), PROT_READ, MAP_SHARED, fd, 0);
    ASSERT_NE(map, MAP_FAILED);
    DWF_DELHandler live;
    live.start();
    mdeletehanlder = &live;
    EXPECT_THAT(run(R"({"media":["100MEDIA-V.MP4"]})"), ElementsAre(ACK_DONE));
    EXPECT_TRUE(deletetest::eventually([&] { return deletetest::entries_in(tree.holding) == 0; }));
    mdeletehanlder = &queued;

    struct stat st;
    ASSERT_EQ(fstat(fd, &st), 0);
    EXPECT_EQ(st.st_nlink, 0u);  // really unlinked, alive only through the descriptor
    EXPECT_EQ(memcmp(map, bytes.data(), bytes.size()), 0);
    munmap(map, bytes.size());
    close(fd);
}

}  // namespace
}  // namespace korvel

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

using deletetest::CardTree;
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
        set_location(tree.dcim, 0, "", 0);
    }
    void TearDown() override {
        ev.reset();
        mdeletehanlder = previous;
        close(sv[0]);
        close(sv[1]);
    }

    void set_location(const std::string& loc, uint8_t userDef, const std::string& postfix,
                      int32_t id) {
        std::lock_guard<std::mutex> lock(ev->locationMutex);
        snprintf(ev->resourceLocation, sizeof ev->resourceLocation, "%s", loc.c_str());
        snprintf(ev->locPostfix, sizeof ev->locPostfix, "%s", postfix.c_str());
        ev->userDefLocation = userDef;
        ev->resourceLocationId = id;
    }

    // One request as the worker runs it, on the task's own copy of the text.
    void run(const std::string& json) {
        std::unique_ptr<char[]> copy(new char[json.size() + 1]);
        memcpy(copy.get(), json.c_str(), json.size() + 1);
        ev->process_file_delete(sv[0], copy.get());
    }

    // Every acknowledgement sent so far; each must have the delete request's fixed fields.
    std::vector<uint16_t> acks() {
        std::vector<uint16_t> codes;
        std::unique_ptr<CPacket> p(new CPacket());
        struct pollfd pfd = {sv[1], POLLIN, 0};
        while (poll(&pfd, 1, 0) > 0 && p->readFrom(sv[1]) > 0) {
            EXPECT_EQ(p->getReqType(), 1u);
            EXPECT_EQ(p->getMarker(), 1u);
            EXPECT_EQ(p->getMsgType(), 1u);
            EXPECT_EQ(p->getOffset(), 0u);
            EXPECT_EQ(p->getAckFlag(), 1u);
            EXPECT_EQ(p->getAckValue(), 0u);
            codes.push_back(static_cast<uint16_t>(p->getAckCode()));
        }
        return codes;
    }

    std::vector<std::string> queued_paths() const {
        return {queued.pendingNames.begin(), queued.pendingNames.end()};
    }

    CardTree tree;
    int sv[2] = {-1, -1};
    DWF_DELHandler queued;  // never started: the test reads what was queued
    DWF_DELHandler* previous = nullptr;
    std::unique_ptr<CEventBase> ev;
};

TEST_F(DeleteRequestTest, EmptyArrayTouchesNothingAndLogsTheTime) {
    tree.put_media({"IMG_0001.JPG", "VID_0002.MP4"});
    tree.enable_trace();
    testing::internal::CaptureStdout();
    run(R"({"media":[]})");
    std::string out = testing::internal::GetCapturedStdout();

    EXPECT_THAT(acks(), ElementsAre(ACK_DONE));
    EXPECT_TRUE(exists(tree.in_media("IMG_0001.JPG")));
    EXPECT_TRUE(exists(tree.in_media("VID_0002.MP4")));
    EXPECT_FALSE(exists(tree.holding));
    EXPECT_THAT(queued_paths(), IsEmpty());
    EXPECT_EQ(count_of(out, TIME_LINE), 1u) << out;
    EXPECT_THAT(out, ::testing::ContainsRegex("cost time [0-9]+ms\n"));
}

TEST_F(DeleteRequestTest, PhotoWithKeyInCapitalsUnlinksItsThumbnailsOnly) {
    tree.put_media(
        {"IMG_0001.JPG", "IMG_0001.thm", "IMG_0001.THM", "IMG_0001.2nd", "IMG_0002.JPG"});
    run(R"({"MEDIA":["100MEDIA-IMG_0001.JPG"]})");

    EXPECT_THAT(acks(), ElementsAre(ACK_DONE));
    for (const char* gone : {"IMG_0001.JPG", "IMG_0001.thm", "IMG_0001.THM"}) {
        EXPECT_FALSE(exists(tree.in_media(gone))) << gone;
    }
    EXPECT_TRUE(exists(tree.in_media("IMG_0001.2nd")));  // photos have no second stream
    EXPECT_TRUE(exists(tree.in_media("IMG_0002.JPG")));
    EXPECT_THAT(queued_paths(), IsEmpty());
    EXPECT_FALSE(exists(tree.holding));
}

TEST_F(DeleteRequestTest, VideoMovesIntoExistingHoldingDirAndIsQueued) {
    testsupport::make_dirs(tree.holding);
    tree.put_media({"VID_0002.mp4", "VID_0002.2nd", "VID_0002.THM", "VID_0002.thm"});
    run(R"({"media":["100MEDIA-VID_0002.mp4"]})");

    EXPECT_THAT(acks(), ElementsAre(ACK_DONE));
    for (const char* gone : {"VID_0002.mp4", "VID_0002.2nd", "VID_0002.THM", "VID_0002.thm"}) {
        EXPECT_FALSE(exists(tree.in_media(gone))) << gone;
    }
    // Moved, not copied or truncated: the holding directory has the same bytes.
    EXPECT_EQ(read_file(tree.in_holding("VID_0002.mp4")), "VID_0002.mp4");
    EXPECT_EQ(read_file(tree.in_holding("VID_0002.2nd")), "VID_0002.2nd");
    EXPECT_FALSE(exists(tree.in_holding("VID_0002.THM")));
    EXPECT_THAT(queued_paths(),
                ElementsAre(tree.in_holding("VID_0002.mp4"), tree.in_holding("VID_0002.2nd")));
}

TEST_F(DeleteRequestTest, VideoWithoutSecondStreamCreatesHoldingDirAndStillQueuesBoth) {
    tree.put_media({"CLIP.MOV"});
    run(R"({"media":["100MEDIA-CLIP.MOV"]})");

    EXPECT_THAT(acks(), ElementsAre(ACK_DONE));
    struct stat st;
    ASSERT_EQ(stat(tree.holding.c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_TRUE(exists(tree.in_holding("CLIP.MOV")));
    EXPECT_FALSE(exists(tree.in_holding("CLIP.2nd")));
    EXPECT_THAT(queued_paths(),
                ElementsAre(tree.in_holding("CLIP.MOV"), tree.in_holding("CLIP.2nd")));
}

TEST_F(DeleteRequestTest, UnresolvableNameIsRefusedAndTheOthersAreHandled) {
    set_location(tree.dcim, 1, "SD0", 0);
    tree.put_media({"A.JPG", "B.JPG", "C.MP4"});
    run(R"({"media":["SD0-100MEDIA-A.JPG","7-100MEDIA-B.JPG","0-100MEDIA-C.MP4"]})");

    EXPECT_THAT(acks(), ElementsAre(ACK_DONE, ACK_BAD_NAME));
    EXPECT_FALSE(exists(tree.in_media("A.JPG")));
    EXPECT_TRUE(exists(tree.in_media("B.JPG")));
    EXPECT_TRUE(exists(tree.in_holding("C.MP4")));
}

TEST_F(DeleteRequestTest, NamesOutsideThePhotoAndVideoRulesAreLeftAlone) {
    const std::string longBase(128, 'L');
    const std::string maxBase(127, 'M');
    const std::vector<std::string> untouched = {"IMG.JPG.bak", "IMG.JPEG", "B",
                                                ".hidden.JPG", "A.B.MP4",  longBase + ".JPG",
                                                "X.",          "TXT.txt"};
    tree.put_media(untouched);
    tree.put_media({"A.MP4", maxBase + ".jpg"});
    std::string json = R"({"media":[1, null, true, {"n":"100MEDIA-A.MP4"}, ["100MEDIA-A.MP4"])";
    for (const std::string& n : untouched) {
        json += ",\"100MEDIA-" + n + "\"";
    }
    json += ",\"100MEDIA-A.MP4\",\"100MEDIA-" + maxBase + ".jpg\"]}";
    run(json);

    EXPECT_THAT(acks(), ElementsAre(ACK_DONE));  // skipped names get no reply
    for (const std::string& n : untouched) {
        EXPECT_TRUE(exists(tree.in_media(n))) << n;
    }
    EXPECT_FALSE(exists(tree.in_media(maxBase + ".jpg")));  // a base of 127 still fits
    EXPECT_THAT(queued_paths(), ElementsAre(tree.in_holding("A.MP4"), tree.in_holding("A.2nd")));
}

TEST_F(DeleteRequestTest, MalformedPayloadsGetOnlyTheFirstReply) {
    tree.put_media({"A.JPG"});
    tree.enable_trace();
    const char* const payloads[] = {
        "not json",
        "",
        R"({"other":["100MEDIA-A.JPG"]})",
        R"({"media":"100MEDIA-A.JPG"})",
        R"({"media":{"x":"100MEDIA-A.JPG"}})",
        R"(["100MEDIA-A.JPG"])",
        R"({"media":["100MEDIA-A.JPG")",
    };
    for (const char* payload : payloads) {
        testing::internal::CaptureStdout();
        run(payload);
        std::string out = testing::internal::GetCapturedStdout();
        EXPECT_THAT(acks(), ElementsAre(ACK_DONE)) << payload;
        EXPECT_TRUE(exists(tree.in_media("A.JPG"))) << payload;
        EXPECT_EQ(count_of(out, TIME_LINE), 0u) << payload;
    }
    // Bytes after the first complete value do not spoil it.
    run(R"({"media":["100MEDIA-A.JPG"]}  trailing bytes)");
    EXPECT_THAT(acks(), ElementsAre(ACK_DONE));
    EXPECT_FALSE(exists(tree.in_media("A.JPG")));
}

// Root ignores directory permissions, so the test thread gives up its file-system identity
// (fsuid is per thread) while the request runs: mkdir under a read-only DCIM then fails
// as it would for the camera's service user on a read-only parent.
class FsIdentity {
public:
    explicit FsIdentity(uid_t uid) : changed(geteuid() == 0) {
        if (changed) {
            setfsuid(uid);
        }
    }
    ~FsIdentity() {
        if (changed) {
            setfsuid(0);
        }
    }

private:
    bool changed;
};

TEST_F(DeleteRequestTest, UncreatableHoldingDirGivesBadLocationAndUnlinksAtOnce) {
    tree.put_media({"VID.MP4", "VID.2nd", "VID.THM", "VID.thm", "IMG.JPG"});
    tree.enable_trace();
    ASSERT_EQ(chmod(tree.tmp.path().c_str(), 0755), 0);
    ASSERT_EQ(chmod(tree.card.c_str(), 0755), 0);
    ASSERT_EQ(chmod(tree.media.c_str(), 0777), 0);
    ASSERT_EQ(chmod(tree.dcim.c_str(), 0555), 0);

    testing::internal::CaptureStdout();
    {
        FsIdentity nobody(65534);
        run(R"({"media":["100MEDIA-VID.MP4","100MEDIA-IMG.JPG"]})");
    }
    std::string out = testing::internal::GetCapturedStdout();

    EXPECT_THAT(acks(), ElementsAre(ACK_DONE, ACK_BAD_LOCATION));
    for (const char* gone : {"VID.MP4", "VID.2nd", "VID.THM", "VID.thm", "IMG.JPG"}) {
        EXPECT_FALSE(exists(tree.in_media(gone))) << gone;
    }
    EXPECT_FALSE(exists(tree.holding));
    EXPECT_THAT(queued_paths(), IsEmpty());
    EXPECT_EQ(count_of(out, "mkdir tmp_delete failed: Permission denied"), 10u) << out;
    EXPECT_EQ(count_of(out, TIME_LINE), 1u);
}

// Sentinels inside and outside the card that no name may reach.
TEST_F(DeleteRequestTest, NamesThatLeaveTheLocationTouchNothing) {
    const std::vector<std::string> sentinels = {
        tree.outside + "/secret.JPG", tree.outside + "/secret.MP4", tree.outside + "/secret.thm",
        tree.card + "/secret.JPG",    tree.dcim + "/secret.JPG",    tree.dcim + "/secret.MP4"};
    for (const std::string& s : sentinels) {
        tree.put(s);
    }
    ASSERT_EQ(symlink("../../outside", (tree.dcim + "/LINKMEDIA").c_str()), 0);
    run(R"({"media":["100MEDIA-../../../outside/secret.JPG", "100MEDIA-../secret.MP4",
                     "..-secret.JPG", ".-secret.JPG", ".-secret.MP4", "100MEDIA-..",
                     "LINKMEDIA-secret.JPG", "LINKMEDIA-secret.MP4"]})");

    EXPECT_THAT(acks(),
                ElementsAre(ACK_DONE, ACK_BAD_NAME, ACK_BAD_NAME, ACK_BAD_NAME, ACK_BAD_NAME,
                            ACK_BAD_NAME, ACK_BAD_NAME, ACK_BAD_NAME, ACK_BAD_NAME));
    for (const std::string& s : sentinels) {
        EXPECT_TRUE(exists(s)) << s;
    }
    EXPECT_FALSE(exists(tree.holding));
    EXPECT_THAT(queued_paths(), IsEmpty());
}

TEST_F(DeleteRequestTest, HoldingDirLeadingOffTheCardIsNotUsed) {
    testsupport::make_dirs(tree.outside + "/hold");
    ASSERT_EQ(symlink("../../outside/hold", tree.holding.c_str()), 0);
    tree.put(tree.outside + "/hold/V.MP4", "outside");
    tree.put_media({"V.MP4", "V.2nd"});
    run(R"({"media":["100MEDIA-V.MP4"]})");

    EXPECT_THAT(acks(), ElementsAre(ACK_DONE, ACK_BAD_LOCATION));
    EXPECT_EQ(read_file(tree.outside + "/hold/V.MP4"), "outside");  // not overwritten
    EXPECT_FALSE(exists(tree.outside + "/hold/V.2nd"));
    EXPECT_FALSE(exists(tree.in_media("V.MP4")));
    EXPECT_FALSE(exists(tree.in_media("V.2nd")));
    EXPECT_THAT(queued_paths(), IsEmpty());
}

TEST_F(DeleteRequestTest, BeforeAnyConfigurationEveryNameIsRefused) {
    ev.reset(new CEventBase());  // the location is still empty
    tree.put_media({"IMG.JPG"});
    // What an empty root would reach: /tmp/<name>.
    const std::string stem = "korvel-delete-" + std::to_string(getpid()) + ".JPG";
    const std::string sentinel = "/tmp/" + stem;
    tree.put(sentinel);
    run("{\"media\":[\"100MEDIA-IMG.JPG\", \"tmp-" + stem + "\"]}");
    const bool survived = exists(sentinel);
    unlink(sentinel.c_str());

    EXPECT_THAT(acks(), ElementsAre(ACK_DONE, ACK_BAD_NAME, ACK_BAD_NAME));
    EXPECT_TRUE(exists(tree.in_media("IMG.JPG")));
    EXPECT_TRUE(survived);
}

// What a download holds while the file is deleted under it: an open descriptor and a
// shared read-only mapping. Moving and unlinking must leave every mapped byte readable
// and unchanged (a truncating delete would turn the next read into SIGBUS).
TEST_F(DeleteRequestTest, MappedVideoKeepsItsBytesThroughMoveAndUnlink) {
    std::string bytes(3 * 4096 + 17, '\0');
    for (size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<char>(i * 131 + 7);
    }
    tree.put(tree.in_media("V.MP4"), bytes);
    int fd = open(tree.in_media("V.MP4").c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    void* map = mmap(nullptr, bytes.size(), PROT_READ, MAP_SHARED, fd, 0);
    ASSERT_NE(map, MAP_FAILED);

    DWF_DELHandler live;
    live.start();
    mdeletehanlder = &live;
    run(R"({"media":["100MEDIA-V.MP4"]})");
    EXPECT_TRUE(deletetest::eventually([&] { return deletetest::entries_in(tree.holding) == 0; }));
    mdeletehanlder = &queued;

    EXPECT_THAT(acks(), ElementsAre(ACK_DONE));
    EXPECT_FALSE(exists(tree.in_media("V.MP4")));
    EXPECT_TRUE(memcmp(map, bytes.data(), bytes.size()) == 0);
    struct stat st;
    ASSERT_EQ(fstat(fd, &st), 0);
    EXPECT_EQ(static_cast<size_t>(st.st_size), bytes.size());
    EXPECT_EQ(st.st_nlink, 0u);  // really unlinked, kept alive only by the descriptor
    munmap(map, bytes.size());
    close(fd);
}

}  // namespace
}  // namespace korvel

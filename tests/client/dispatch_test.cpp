// Dispatch of accepted packets: which become tasks (and with what fields), which are
// answered at once, which are ignored or warned about, and the last-package notice.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "app/client.h"
#include "client/event_base.h"
#include "core/config.h"
#include "support/temp_dir.h"

namespace korvel {
namespace {

struct SeenTask {
    uint8_t type;
    uint32_t offset, length;
    int32_t fd;
    uint8_t marker;
    uint16_t value;
    std::string payload;
};

// Records tasks instead of running them; stops its worker before it goes away so the
// worker never calls into a half-destroyed object.
class RecordingEventBase : public CEventBase {
public:
    ~RecordingEventBase() override { stop_worker(); }
    void process(HandlerTask& t) override {
        std::lock_guard<std::mutex> g(m);
        seen.push_back({t.type, t.offset, t.length, t.fd, t.marker, t.value,
                        t.payload ? std::string(t.payload.get()) : std::string()});
    }
    std::vector<SeenTask> wait_for(size_t n) {
        for (int i = 0; i < 200; ++i) {
            {
                std::lock_guard<std::mutex> g(m);
                if (seen.size() >= n) {
                    return seen;
                }
            }
            usleep(5000);
        }
        std::lock_guard<std::mutex> g(m);
        return seen;
    }
    std::mutex m;
    std::vector<SeenTask> seen;
};

class Dispatch : public testing::Test {
protected:
    testsupport::TempDir card;  // keeps trace lookups off the real card
    int sv[2] = {-1, -1};
    void SetUp() override {
        testing_seam::set_sd_root(card.path().c_str());
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    }
    void TearDown() override {
        close(sv[0]);
        close(sv[1]);
    }
    // A received packet as the loop hands it over: header already converted.
    static void load(CPacket& p, uint32_t reqType, uint8_t marker, uint8_t msgType, uint32_t offset,
                     const void* payload, uint32_t len) {
        std::vector<uint8_t> w =
            app::encode_packet(reqType, marker, msgType, 9, 1, offset, 0, payload, len);
        memcpy(p.buffer(), w.data(), w.size());
        p.unpackHeader();
    }
    static void load_ctrl(CPacket& p, uint8_t marker, uint8_t msgType, uint32_t offset,
                          uint32_t ackWord) {
        uint8_t be[4] = {uint8_t(ackWord >> 24), uint8_t(ackWord >> 16), uint8_t(ackWord >> 8),
                         uint8_t(ackWord)};
        load(p, 1, marker, msgType, offset, be, 4);
    }
    bool reply_waiting(int ms = 50) {
        pollfd p{sv[1], POLLIN, 0};
        return poll(&p, 1, ms) > 0;
    }
    app::Reply read_reply() {
        app::Client c;
        c.adopt_fd(dup(sv[1]));
        app::Reply r;
        EXPECT_EQ(c.read_reply(r, 2000), app::CLIENT_OK);
        EXPECT_TRUE(r.crcOk);
        return r;
    }
};

TEST_F(Dispatch, QueuedTasksCarryTheirRequestFieldsInArrivalOrder) {
    RecordingEventBase eb;
    CPacket p;
    const uint8_t small[4] = {0x00, 0x10, 0x00, 0x00};  // 4096, little-endian
    const uint8_t large[4] = {0x00, 0x00, 0x10, 0x00};  // 1048576
    load(p, 0, 1, 3, 100, small, 4);
    eb.event_base_process(sv[0], p);
    load(p, 0, 1, 5, 200, large, 4);
    eb.event_base_process(sv[0], p);
    load_ctrl(p, 1, 0, 300, 5u << 16);  // catalogue type 5
    eb.event_base_process(sv[0], p);
    load_ctrl(p, 1, 6, 400, 0);
    eb.event_base_process(sv[0], p);
    const char json[] = "{\"media\":[\"100MEDIA-A.JPG\"]}";
    load(p, 0, 1, 1, 0, json, sizeof json - 1);
    eb.event_base_process(sv[0], p);
    load(p, 0, 1, 4, 500, small, 4);  // the buffer is reused; the delete copy must survive
    eb.event_base_process(sv[0], p);

    std::vector<SeenTask> t = eb.wait_for(6);
    ASSERT_EQ(t.size(), 6u);
    EXPECT_EQ(t[0].type, TASK_STREAM3);
    EXPECT_EQ(t[0].offset, 100u);
    EXPECT_EQ(t[0].length, 4096u);
    EXPECT_EQ(t[0].fd, sv[0]);
    EXPECT_EQ(t[1].type, TASK_STREAM6);
    EXPECT_EQ(t[1].length, 1048576u);
    EXPECT_EQ(t[2].type, TASK_CATALOGUE);
    EXPECT_EQ(t[2].offset, 300u);
    EXPECT_EQ(t[2].value, 5u);
    EXPECT_EQ(t[2].marker, 1u);
    EXPECT_EQ(t[3].type, TASK_STREAM6);
    EXPECT_EQ(t[3].length, 0u);
    EXPECT_EQ(t[4].type, TASK_DELETE);
    EXPECT_EQ(t[4].payload, json);
    EXPECT_EQ(t[5].type, TASK_STREAM6);
    EXPECT_FALSE(reply_waiting()) << "queued requests are answered by their tasks only";
}

TEST_F(Dispatch, IgnoredTypesAreSilentAndUnknownOnesWarnWithTheirDispatcher) {
    RecordingEventBase eb;
    CPacket p;
    const uint8_t word[4] = {0, 0, 0, 0};
    testing::internal::CaptureStderr();
    for (uint8_t t : {0, 7}) {
        load(p, 0, 1, t, 0, word, 4);
        EXPECT_EQ(eb.event_base_process_data(sv[0], p), 0);
    }
    for (uint8_t t : {1, 2, 4, 17}) {
        load_ctrl(p, 1, t, 0, 0);
        EXPECT_EQ(eb.event_base_process_ctrl(sv[0], p), 0);
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");

    testing::internal::CaptureStderr();
    for (uint8_t t : {12, 25}) {
        load(p, 0, 1, t, 0, word, 4);
        EXPECT_EQ(eb.event_base_process_data(sv[0], p), -1);
        EXPECT_EQ(eb.event_base_process(sv[0], p), 0) << "the loop always goes on";
    }
    load_ctrl(p, 1, 9, 0, 0);
    EXPECT_EQ(eb.event_base_process_ctrl(sv[0], p), -1);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("[Quillmere-warn] [WARN],int32_t korvel::CEventBase::event_base_process_"
                       "data(int, korvel::CPacket&)unknown message type!\n"),
              std::string::npos);
    EXPECT_NE(err.find("[WARN],int32_t korvel::CEventBase::event_base_process_ctrl(int, "
                       "korvel::CPacket&)unknown message type!"),
              std::string::npos);
    EXPECT_TRUE(eb.wait_for(1).empty());
    EXPECT_FALSE(reply_waiting());
}

TEST_F(Dispatch, LastPackageNoticeNeedsCodeTypeAndMarker) {
    struct Case {
        uint8_t marker, msgType;
        uint16_t code;
        bool done;
    } cases[] = {{1, 0, ACK_END_OF_DATA, true},  {3, 0, ACK_END_OF_DATA, true},
                 {2, 0, ACK_END_OF_DATA, false}, {0, 0, ACK_END_OF_DATA, false},
                 {1, 3, ACK_END_OF_DATA, false}, {1, 0, ACK_DONE, false}};
    for (const Case& c : cases) {
        RecordingEventBase eb;
        CPacket p;
        load_ctrl(p, c.marker, c.msgType, 0, 0x80000000u | c.code);
        EXPECT_EQ(eb.event_base_process(sv[0], p), 0);
        EXPECT_EQ(eb.lastPackageDone.load(), c.done ? 1 : 0) << int(c.marker) << int(c.msgType);
        EXPECT_EQ(eb.quit_received(), c.done ? 1 : 0);
        EXPECT_TRUE(eb.wait_for(1).empty()) << "an acknowledgement is never a request";
    }
    EXPECT_FALSE(reply_waiting());
}

TEST_F(Dispatch, PositionAndQuitAreAnsweredAtOnce) {
    RecordingEventBase eb;
    eb.readOffset = 8192;
    CPacket p;
    load_ctrl(p, 1, 5, 0, 0);
    ASSERT_EQ(eb.check_seq_no(p), 0);
    eb.event_base_process(sv[0], p);
    app::Reply pos = read_reply();
    EXPECT_EQ(pos.reqType, 0u);
    EXPECT_EQ(pos.msgType, 5u);
    EXPECT_EQ(pos.marker, 1u);
    EXPECT_EQ(pos.seqNO, 9u);
    EXPECT_EQ(pos.payload, (std::vector<uint8_t>{0x00, 0x00, 0x30, 0x00}));

    load_ctrl(p, 1, 7, 0, 0);
    eb.event_base_process(sv[0], p);
    app::Reply quit = read_reply();
    EXPECT_EQ(quit.reqType, 1u);
    EXPECT_EQ(quit.msgType, 7u);
    EXPECT_EQ(quit.marker, 1u);
    EXPECT_EQ(quit.ackFlag, 1u);
    EXPECT_EQ(quit.ackCode, ACK_DONE);
    EXPECT_EQ(eb.quit_received(), 1);
}

TEST_F(Dispatch, SequenceAndChecksumChecks) {
    RecordingEventBase eb;
    CPacket p;
    load_ctrl(p, 2, 5, 0, 0);
    EXPECT_EQ(eb.check_seq_no(p), 0);
    EXPECT_EQ(eb.check_seq_no(p), 0) << "an equal seqNO is accepted";
    eb.lastSeqNO = 10;
    EXPECT_EQ(eb.check_seq_no(p), -1);
    eb.lastSeqNO = 0;
    EXPECT_EQ(eb.check_crc(sv[0], p), 0);
    EXPECT_FALSE(reply_waiting());
    p.getPayload()[0] ^= 1;
    EXPECT_EQ(eb.check_crc(sv[0], p), -1);
    app::Reply r = read_reply();
    EXPECT_EQ(r.ackCode, ACK_BAD_CHECKSUM);
    EXPECT_EQ(r.marker, 2u) << "the rejected packet's own marker";
    EXPECT_EQ(r.msgType, 5u);
}

}  // namespace
}  // namespace korvel

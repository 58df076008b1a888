// Dispatch of accepted packets: which become tasks (and with what fields), which are
// answered at once, which are refused or ignored, and the last-package notice.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <mutex>
#include <string>
#include <tuple>
#include <vector>

#include "app/client.h"
#include "client/event_base.h"
#include "core/config.h"
#include "support/temp_dir.h"
#include "transfer/transfer_fixture.h"

namespace korvel {
namespace {

// type, offset, length, marker, value, payload
using SeenTask = std::tuple<uint8_t, uint32_t, uint32_t, uint8_t, uint16_t, std::string>;
constexpr uint32_t FLUSH = 0xF1F1F1F1u;

// Records tasks instead of running them; stops its worker before it goes away so the
// worker never calls into a half-destroyed object.
class RecordingEventBase : public CEventBase {
public:
    ~RecordingEventBase() override { stop_worker(); }
    void process(HandlerTask& t) override {
        std::lock_guard<std::mutex> g(m);
        if (t.offset == FLUSH) {
            flushed = true;
            return;
        }
        seen.emplace_back(t.type, t.offset, t.length, t.marker, t.value,
                          t.payload ? std::string(t.payload.get()) : std::string());
        fds.push_back(t.fd);
    }
    // What the worker ran before a marker task queued now: every task queued earlier.
    std::vector<SeenTask> tasks() {
        HandlerTask marker;
        marker.type = TASK_STREAM3;
        marker.offset = FLUSH;
        queue_task(std::move(marker));
        EXPECT_TRUE(testsupport::eventually([this] {
            std::lock_guard<std::mutex> g(m);
            return flushed;
        }));
        std::lock_guard<std::mutex> g(m);
        flushed = false;
        return seen;
    }
    std::mutex m;
    bool flushed = false;
    std::vector<SeenTask> seen;
    std::vector<int> fds;
};

// The transfer fixture's card and socketpair; packets handed over as the loop would.
class Dispatch : public transfertest::TransferTest {
protected:
    CPacket p;
    // A received packet as the loop hands it over: header already converted.
    CPacket& load(uint32_t reqType, uint8_t marker, uint8_t msgType, uint32_t offset,
                  const void* payload, uint32_t len) {
        std::vector<uint8_t> w =
            app::encode_packet(reqType, marker, msgType, 9, 1, offset, 0, payload, len);
        memcpy(p.buffer(), w.data(), w.size());
        p.unpackHeader();
        return p;
    }
    CPacket& ctrl(uint8_t marker, uint8_t msgType, uint32_t offset = 0, uint32_t ackWord = 0) {
        uint8_t be[4] = {uint8_t(ackWord >> 24), uint8_t(ackWord >> 16), uint8_t(ackWord >> 8),
                         uint8_t(ackWord)};
        return load(1, marker, msgType, offset, be, 4);
    }
    bool reply_waiting() { return !replies().empty(); }
};

TEST_F(Dispatch, QueuedTasksCarryTheirRequestFieldsInArrivalOrder) {
    RecordingEventBase rec;
    const uint8_t small[4] = {0x00, 0x10, 0x00, 0x00};  // 4096, little-endian
    const uint8_t large[4] = {0x00, 0x00, 0x10, 0x00};  // 1048576
    const char json[] = "{\"media\":[\"100MEDIA-A.JPG\"]}";
    rec.event_base_process(sv[0], load(0, 1, MSG_CHUNK, 100, small, 4));
    rec.event_base_process(sv[0], load(0, 1, 5, 200, large, 4));
    rec.event_base_process(sv[0], ctrl(1, MSG_CATALOGUE, 300, 5u << 16));  // type 5
    rec.event_base_process(sv[0], ctrl(1, MSG_CHUNK_CONT, 400));
    rec.event_base_process(sv[0], load(0, 1, MSG_DELETE, 0, json, sizeof json - 1));
    // The buffer is reused; the delete task's copy must survive.
    rec.event_base_process(sv[0], load(0, 1, 4, 500, small, 4));
    EXPECT_EQ(rec.tasks(), (std::vector<SeenTask>{{TASK_STREAM3, 100, 4096, 0, 0, ""},
                                                  {TASK_STREAM6, 200, 1048576, 0, 0, ""},
                                                  {TASK_CATALOGUE, 300, 0, 1, 5, ""},
                                                  {TASK_STREAM6, 400, 0, 0, 0, ""},
                                                  {TASK_DELETE, 0, 0, 0, 0, json},
                                                  {TASK_STREAM6, 500, 4096, 0, 0, ""}}));
    EXPECT_EQ(rec.fds, std::vector<int>(6, sv[0]));
    EXPECT_FALSE(reply_waiting()) << "queued requests are answered by their tasks only";
}

// Unknown types are refused by their dispatcher, yet the loop goes on; none gets a reply.
TEST_F(Dispatch, IgnoredAndUnknownTypesQueueNothingAndAreNotAnswered) {
    RecordingEventBase rec;
    const uint8_t word[4] = {0, 0, 0, 0};
    const std::pair<uint8_t, int32_t> data[] = {{0, 0}, {7, 0}, {12, -1}, {25, -1}};
    for (const auto& [type, rc] : data) {
        EXPECT_EQ(rec.event_base_process_data(sv[0], load(0, 1, type, 0, word, 4)), rc) << +type;
        EXPECT_EQ(rec.event_base_process(sv[0], p), 0) << "the loop always goes on";
    }
    for (uint8_t t : {1, 2, 4, 17}) {
        EXPECT_EQ(rec.event_base_process_ctrl(sv[0], ctrl(1, t)), 0);
    }
    EXPECT_EQ(rec.event_base_process_ctrl(sv[0], ctrl(1, 9)), -1);
    EXPECT_TRUE(rec.tasks().empty());
    EXPECT_FALSE(reply_waiting());
}

TEST_F(Dispatch, LastPackageNoticeNeedsCodeTypeAndMarker) {
    struct Case {
        uint8_t marker, msgType;
        uint16_t code;
        bool done;
    } cases[] = {{MARKER_CONT_LAST, 0, ACK_END_OF_DATA, true},  // LAST is the server test's
                 {MARKER_CONT_MORE, 0, ACK_END_OF_DATA, false},
                 {MARKER_LAST, MSG_CHUNK, ACK_END_OF_DATA, false},
                 {MARKER_LAST, 0, ACK_DONE, false}};
    for (const Case& c : cases) {
        RecordingEventBase rec;
        EXPECT_EQ(rec.event_base_process(sv[0], ctrl(c.marker, c.msgType, 0, 0x80000000u | c.code)),
                  0);
        EXPECT_EQ(rec.lastPackageDone.load(), c.done ? 1 : 0) << int(c.marker) << int(c.msgType);
        EXPECT_EQ(rec.quit_received(), c.done ? 1 : 0);
        EXPECT_TRUE(rec.tasks().empty()) << "an acknowledgement is never a request";
    }
    EXPECT_FALSE(reply_waiting());
}

// The quit's acknowledgement is checked on the wire by the system tests.
TEST_F(Dispatch, PositionIsAnsweredAtOnceAsPacketSizePlusOffset) {
    RecordingEventBase rec;
    rec.readOffset = 8192;  // plus the default packet size, 4096
    ASSERT_EQ(rec.check_seq_no(ctrl(MARKER_LAST, MSG_POSITION)), 0);
    rec.event_base_process(sv[0], p);
    const transfertest::Replies pos = replies();
    ASSERT_EQ(pos.size(), 1u);
    EXPECT_EQ(std::make_tuple(pos[0].reqType, pos[0].msgType, pos[0].marker, pos[0].seqNO),
              std::make_tuple(0u, 5u, 1u, 9u));
    EXPECT_EQ(pos[0].payload, (std::vector<uint8_t>{0x00, 0x00, 0x30, 0x00}));
}

}  // namespace
}  // namespace korvel

// Reading packets off a non-blocking socket: length bounds, packets split across reads,
// peers that close mid-packet, and whole vectors through a full socket.
#include "core/io.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "app/client.h"
#include "core/packet.h"

namespace korvel {
namespace {

struct SocketPair {
    int server = -1;  // non-blocking, as the loop's connections are
    int peer = -1;
    SocketPair() {
        int sv[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
        server = sv[0];
        peer = sv[1];
        fcntl(server, F_SETFL, fcntl(server, F_GETFL) | O_NONBLOCK);
    }
    ~SocketPair() {
        close(server);
        if (peer >= 0) {
            close(peer);
        }
    }
    void send(const std::vector<uint8_t>& b, size_t from = 0, size_t n = std::string::npos) {
        n = std::min(n, b.size() - from);
        ASSERT_EQ(write(peer, b.data() + from, n), static_cast<ssize_t>(n));
    }
    void close_peer() {
        close(peer);
        peer = -1;
    }
};

std::vector<uint8_t> data_packet(uint32_t payloadLen, uint32_t seq = 1) {
    std::vector<uint8_t> payload(payloadLen, 0x5A);
    return app::encode_packet(0, 1, 3, seq, 42, 0, 0, payload.data(), payloadLen);
}

// A header announcing `len` followed by whatever bytes fit the announcement.
std::vector<uint8_t> header_announcing(uint32_t len) {
    std::vector<uint8_t> p = data_packet(4);
    p[12] = static_cast<uint8_t>(len >> 24);
    p[13] = static_cast<uint8_t>(len >> 16);
    p[14] = static_cast<uint8_t>(len >> 8);
    p[15] = static_cast<uint8_t>(len);
    p.resize(20);
    return p;
}

TEST(Assembler, AcceptsPayloadLengthsFrom4To65532Only) {
    struct Case {
        uint32_t len;
        int32_t expect;
    } cases[] = {{3, -2}, {4, 28}, {65532, 65556}, {65533, -2}, {70000, -2}};
    for (const Case& c : cases) {
        SocketPair sp;
        if (c.expect > 0) {
            std::thread writer([&] { sp.send(data_packet(c.len)); });
            CPacket packet;
            EXPECT_EQ(packet.readFrom(sp.server), c.expect) << c.len;
            writer.join();
            EXPECT_EQ(packet.getPayloadLen(), c.len);
        } else {
            sp.send(header_announcing(c.len));
            PacketAssembler a;
            CPacket packet;
            testing::internal::CaptureStdout();
            EXPECT_EQ(a.feed(sp.server, packet), -2) << c.len;
            EXPECT_EQ(testing::internal::GetCapturedStdout(), "parse payloadlen error\n");
        }
    }
}

TEST(Assembler, ReassemblesSplitPacketsAndLeavesTheNextOneInTheSocket) {
    SocketPair sp;
    std::vector<uint8_t> first = data_packet(1000, 1);
    std::vector<uint8_t> second = data_packet(8, 2);
    PacketAssembler a;
    CPacket packet;
    sp.send(first, 0, 10);
    EXPECT_EQ(a.feed(sp.server, packet), PacketAssembler::INCOMPLETE);
    EXPECT_FALSE(a.idle());
    sp.send(first, 10, 500);
    EXPECT_EQ(a.feed(sp.server, packet), PacketAssembler::INCOMPLETE);
    sp.send(first, 510);
    sp.send(second);
    ASSERT_EQ(a.feed(sp.server, packet), 1024);
    EXPECT_TRUE(a.idle());
    EXPECT_EQ(packet.getSeqNO(), 1u);
    EXPECT_EQ(crc32_calc(0, packet.buffer(), packet.getCrcLen()), packet.getCrcData());
    ASSERT_EQ(a.feed(sp.server, packet), 32);
    EXPECT_EQ(packet.getSeqNO(), 2u);
    EXPECT_EQ(packet.getPayload()[12], 0) << "bytes of the longer packet must not show through";
}

TEST(Assembler, PeerClosingMidPacketReportsWhatArrived) {
    struct Case {
        size_t sent;
        const char* out;
    } cases[] = {
        {0, "client is closed, incomplete-size: 0!\nclient end.\n"},
        {10, "client is closed, incomplete-size: 10!\nclient end.\n"},
        {25, "client is closed, incomplete-size: 5!\n"},
    };
    for (const Case& c : cases) {
        SocketPair sp;
        std::vector<uint8_t> p = data_packet(100);
        PacketAssembler a;
        CPacket packet;
        if (c.sent > 0) {
            sp.send(p, 0, c.sent);
            EXPECT_EQ(a.feed(sp.server, packet), PacketAssembler::INCOMPLETE);
        }
        sp.close_peer();
        testing::internal::CaptureStdout();
        EXPECT_EQ(a.feed(sp.server, packet), 0);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), c.out) << c.sent;
    }
}

TEST(Writes, WholeVectorArrivesInOrderThroughAFullSocket) {
    SocketPair sp;
    std::vector<uint8_t> a(100, 1), b(3 * 1024 * 1024, 2), c(4, 3);
    std::vector<uint8_t> got;
    std::thread reader([&] {
        uint8_t buf[65536];
        while (got.size() < a.size() + b.size() + c.size()) {
            ssize_t r = read(sp.peer, buf, sizeof buf);
            if (r <= 0) {
                break;
            }
            got.insert(got.end(), buf, buf + r);
        }
    });
    int total = static_cast<int>(a.size() + b.size() + c.size());
    EXPECT_EQ(
        writev_all(sp.server, a.data(), 100, b.data(), static_cast<int>(b.size()), c.data(), 4),
        total);
    reader.join();
    ASSERT_EQ(got.size(), static_cast<size_t>(total));
    EXPECT_EQ(got[99], 1);
    EXPECT_EQ(got[100], 2);
    EXPECT_EQ(got[total - 1], 3);
}

}  // namespace
}  // namespace korvel

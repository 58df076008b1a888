// Reading packets off a non-blocking socket: packets split across reads. Lengths outside
// 4..65532 are fuzz_packet's (no such packet is ever returned) and the server test's (the
// connection goes); peers that close mid-packet are the server and soak tests' (vanishing
// apps); whole writes through a full socket go through every large system-test download.
#include "core/io.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "app/client.h"
#include "core/packet.h"

namespace korvel {
namespace {

// The loop's end non-blocking, the peer's blocking.
struct SocketPair {
    int sv[2] = {-1, -1};
    int& server = sv[0];
    int& peer = sv[1];
    PacketAssembler a;
    CPacket packet;
    SocketPair() {
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
        fcntl(server, F_SETFL, fcntl(server, F_GETFL) | O_NONBLOCK);
    }
    ~SocketPair() {
        close(server);
        close(peer);
    }
    void send(const std::vector<uint8_t>& b, size_t from = 0, size_t n = std::string::npos) {
        n = std::min(n, b.size() - from);
        ASSERT_EQ(write(peer, b.data() + from, n), static_cast<ssize_t>(n));
    }
    int32_t feed() { return a.feed(server, packet); }
};

std::vector<uint8_t> data_packet(uint32_t payloadLen, uint32_t seq = 1) {
    std::vector<uint8_t> payload(payloadLen, 0x5A);
    return app::encode_packet(0, 1, 3, seq, 42, 0, 0, payload.data(), payloadLen);
}

TEST(Assembler, ReassemblesSplitPacketsAndLeavesTheNextOneInTheSocket) {
    SocketPair sp;
    std::vector<uint8_t> first = data_packet(1000, 1), second = data_packet(8, 2);
    sp.send(first, 0, 10);
    EXPECT_EQ(sp.feed(), PacketAssembler::INCOMPLETE);
    EXPECT_FALSE(sp.a.idle());
    sp.send(first, 10, 500);
    EXPECT_EQ(sp.feed(), PacketAssembler::INCOMPLETE);
    sp.send(first, 510);
    sp.send(second);
    ASSERT_EQ(sp.feed(), 1024);
    EXPECT_TRUE(sp.a.idle());
    EXPECT_EQ(sp.packet.getSeqNO(), 1u);
    EXPECT_EQ(crc32_calc(0, sp.packet.buffer(), sp.packet.getCrcLen()), sp.packet.getCrcData());
    ASSERT_EQ(sp.feed(), 32);
    EXPECT_EQ(sp.packet.getSeqNO(), 2u);
    EXPECT_EQ(sp.packet.getPayload()[12], 0) << "bytes of the longer packet must not show through";
}

}  // namespace
}  // namespace korvel

// The client library's codec: worked example bytes, checksum coverage, the configuration
// payload, and read_reply over a stream the test writes itself.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <sstream>
#include <string>
#include <vector>

#include "app/client.h"
#include "core/packet.h"

namespace korvel::app {
namespace {

std::vector<uint8_t> hex(const char* text) {
    std::vector<uint8_t> out;
    std::istringstream in(text);
    for (unsigned b = 0; in >> std::hex >> b;) {
        out.push_back(static_cast<uint8_t>(b));
    }
    return out;
}

const char* const QUIT_ACK =
    "a7 00 00 05 00 01 23 45 00 00 00 00 00 00 00 04 00 0f 42 40 80 00 fb 00 af fc 09 28";
const char* const SIZE_REPLY =
    "22 00 00 05 00 01 23 45 00 00 00 00 00 00 00 04 00 0f 42 40 00 00 10 00 0e 87 1e ee";

// The ack word of a control packet enters the checksum reversed, a data payload as it stands;
// a location longer than its 1024-byte field is cut there and never spills into the words.
TEST(ClientCodec, EncodesTheWorkedExamplesAndTheConfigurationPayload) {
    EXPECT_EQ(encode_packet(1, 1, 7, 5, 0x12345, 0, 1000000, hex("80 00 fb 00").data(), 4),
              hex(QUIT_ACK));
    EXPECT_EQ(encode_packet(0, 1, 2, 5, 0x12345, 0, 1000000, hex("00 00 10 00").data(), 4),
              hex(SIZE_REPLY));
    EXPECT_EQ(packet_crc(hex(QUIT_ACK).data(), 4), 0xAFFC0928u);
    EXPECT_EQ(packet_crc(hex(SIZE_REPLY).data(), 4), 0x0E871EEEu);
    std::vector<uint8_t> p = build_config_payload(512, 1, std::string(1500, 'x'), true, 3);
    ASSERT_EQ(p.size(), 1032u);
    EXPECT_EQ(p[1023], 'x');
    EXPECT_EQ(std::vector<uint8_t>(p.begin() + 1024, p.end()), hex("80 03 02 00 00 00 00 01"));
}

// A client on one end of a socketpair; the test plays the server on the other, sv[1].
struct Wired : ::testing::Test {
    void SetUp() override {
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
        c.adopt_fd(sv[0]);
    }
    void TearDown() override { close(sv[1]); }
    void put(const std::vector<uint8_t>& b) {
        ASSERT_EQ(write(sv[1], b.data(), b.size()), ssize_t(b.size()));
    }
    int sv[2] = {-1, -1};
    Client c;
    Reply r;
};

TEST_F(Wired, ReadReplyFlagsCorruptionRefusesImpossibleLengthsAndSeesTheClose) {
    std::vector<uint8_t> bad = hex(SIZE_REPLY);
    bad[22] ^= 0x01;
    put(bad);
    put(hex(QUIT_ACK));
    ASSERT_EQ(c.read_reply(r, 1000), CLIENT_OK);
    EXPECT_FALSE(r.crcOk);
    ASSERT_EQ(c.read_reply(r, 1000), CLIENT_OK);  // still in step after the bad one
    EXPECT_TRUE(r.crcOk && r.msgType == 7u);
    // Data over 65536 bytes; a control packet with no ack word; one with two words.
    for (auto [reqType, len] : {std::pair<uint32_t, uint32_t>{0, 65537}, {1, 0}, {1, 8}}) {
        std::vector<uint8_t> h = encode_packet(reqType, 1, 0, 1, 1, 0, 0, nullptr, 0);
        for (int i = 0; i < 4; ++i) {
            h[12 + i] = static_cast<uint8_t>(len >> (24 - 8 * i));
        }
        put({h.begin(), h.begin() + 20});
        EXPECT_EQ(c.read_reply(r, 1000), CLIENT_BAD_PACKET) << reqType << "/" << len;
    }
    put({0xa7, 0, 0});  // a packet cut short, then the close
    shutdown(sv[1], SHUT_WR);
    EXPECT_EQ(c.read_reply(r, 1000), CLIENT_CLOSED);
}

// The sequence number wraps within its 24 bits; a chunk length travels little-endian.
TEST_F(Wired, ChunkRequestCarriesPeerWrappedSeqAndLittleEndianLength) {
    c.peerID = 0xFFFFFFFF;
    c.seqNO = 0xFFFFFF;
    ASSERT_EQ(c.request_chunk(20000, 4096, 3), CLIENT_OK);
    ASSERT_EQ(c.ack_last_package(3), CLIENT_OK);
    std::vector<uint8_t> b(56);
    ASSERT_EQ(read(sv[1], b.data(), b.size()), 56);
    b.erase(b.begin() + 24, b.begin() + 28);  // the chunk request's checksum
    b.erase(b.begin() + 16, b.begin() + 20);  // and its timestamp
    EXPECT_EQ(std::vector<uint8_t>(b.begin(), b.begin() + 24),
              hex("23 ff ff ff ff ff ff ff 00 00 4e 20 00 00 00 04 00 10 00 00 e0 00 00 00"));
    EXPECT_EQ(std::vector<uint8_t>(b.begin() + 40, b.begin() + 44), hex("80 00 fb 04"));
}

}  // namespace
}  // namespace korvel::app

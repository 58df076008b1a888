// The client library's own codec: encoding against the worked example bytes, the checksum's
// coverage rule, the configuration payload, and read_reply's handling of a bad stream.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "app/client.h"
#include "core/packet.h"

namespace korvel {
namespace app {
namespace {

std::vector<uint8_t> hex(const char* text) {
    std::vector<uint8_t> out;
    for (const char* p = text; *p != '\0';) {
        if (*p == ' ') {
            ++p;
            continue;
        }
        out.push_back(static_cast<uint8_t>(std::stoi(std::string(p, 2), nullptr, 16)));
        p += 2;
    }
    return out;
}

const char* const QUIT_ACK =
    "a7 00 00 05 00 01 23 45 00 00 00 00 00 00 00 04 00 0f 42 40 80 00 fb 00 af fc 09 28";
const char* const SIZE_REPLY =
    "22 00 00 05 00 01 23 45 00 00 00 00 00 00 00 04 00 0f 42 40 00 00 10 00 0e 87 1e ee";

TEST(ClientCodec, EncodesTheWorkedExamplesByteForByte) {
    uint8_t ack[4] = {0x80, 0x00, 0xfb, 0x00};
    EXPECT_EQ(encode_packet(1, 1, 7, 5, 0x12345, 0, 1000000, ack, 4), hex(QUIT_ACK));
    uint8_t size[4] = {0x00, 0x00, 0x10, 0x00};
    EXPECT_EQ(encode_packet(0, 1, 2, 5, 0x12345, 0, 1000000, size, 4), hex(SIZE_REPLY));
}

TEST(ClientCodec, ChecksumReversesHeaderWordsAndOnlyTheControlAckWord) {
    std::vector<uint8_t> ack = hex(QUIT_ACK);
    EXPECT_EQ(packet_crc(ack.data(), 4), 0xAFFC0928u);
    // Over the wire bytes as they stand the value differs: the words must be reversed.
    EXPECT_NE(crc32_calc(0, ack.data(), 24), 0xAFFC0928u);
    // The same four payload bytes in a data packet enter unreversed.
    std::vector<uint8_t> data = hex(SIZE_REPLY);
    EXPECT_EQ(packet_crc(data.data(), 4), 0x0E871EEEu);
    // An empty data packet: only the reversed header is covered.
    std::vector<uint8_t> empty = encode_packet(0, 1, 3, 9, 7, 0, 0, nullptr, 0);
    ASSERT_EQ(empty.size(), 24u);
    uint8_t reversed[20];
    for (int i = 0; i < 20; ++i) {
        reversed[i] = empty[(i / 4) * 4 + 3 - i % 4];
    }
    uint32_t trailer = empty[20] << 24 | empty[21] << 16 | empty[22] << 8 | empty[23];
    EXPECT_EQ(trailer, crc32_calc(0, reversed, 20));
}

TEST(ClientCodec, ConfigurationPayloadLayout) {
    std::vector<uint8_t> p = build_config_payload(4096, 8, "/tmp/SD0/", true, 3);
    ASSERT_EQ(p.size(), 1032u);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(p.data())), "/tmp/SD0/");
    EXPECT_EQ(std::vector<uint8_t>(p.begin() + 1024, p.end()), hex("80 03 10 00 00 00 00 08"));
    // A 1024-byte text fills the field without a NUL and never spills into the words.
    p = build_config_payload(512, 1, std::string(1500, 'x'), false);
    EXPECT_EQ(p[1023], 'x');
    EXPECT_EQ(std::vector<uint8_t>(p.begin() + 1024, p.end()), hex("00 00 02 00 00 00 00 01"));
}

// read_reply over a socketpair: the test writes the server's side.
class ReadReply : public ::testing::Test {
protected:
    void SetUp() override {
        int sv[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
        client.adopt_fd(sv[0]);
        peer = sv[1];
    }
    void TearDown() override {
        if (peer >= 0) {
            close(peer);
        }
    }
    void put(const std::vector<uint8_t>& bytes) {
        ASSERT_EQ(write(peer, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }
    Client client;
    int peer = -1;
};

TEST_F(ReadReply, DecodesControlAndDataReplies) {
    put(hex(QUIT_ACK));
    uint8_t all[4] = {0xff, 0xff, 0xfb, 0x03};
    put(encode_packet(1, 3, 0, 77, 9, 0, 0, all, 4));
    put(encode_packet(0, 2, 3, 78, 9, 4096, 0, "abcdef", 6));
    Reply r;
    ASSERT_EQ(client.read_reply(r, 1000), CLIENT_OK);
    EXPECT_TRUE(r.crcOk);
    EXPECT_EQ(r.reqType, 1u);
    EXPECT_EQ(r.marker, 1u);
    EXPECT_EQ(r.msgType, 7u);
    EXPECT_EQ(r.seqNO, 5u);
    EXPECT_EQ(r.peerID, 0x12345u);
    EXPECT_EQ(r.timestamp, 1000000u);
    EXPECT_EQ(r.ackCode, ACK_DONE);
    ASSERT_EQ(client.read_reply(r, 1000), CLIENT_OK);
    // The value never takes bit 31.
    EXPECT_EQ(r.ackFlag, 1u);
    EXPECT_EQ(r.ackValue, 0x7FFFu);
    EXPECT_EQ(r.ackCode, 0xFB03u);
    ASSERT_EQ(client.read_reply(r, 1000), CLIENT_OK);
    EXPECT_TRUE(r.crcOk);
    EXPECT_EQ(r.offset, 4096u);
    EXPECT_EQ(std::string(r.payload.begin(), r.payload.end()), "abcdef");
}

TEST_F(ReadReply, FlagsACorruptedPacketAndStaysInStep) {
    std::vector<uint8_t> bad = hex(SIZE_REPLY);
    bad[22] ^= 0x01;
    put(bad);
    put(hex(QUIT_ACK));
    Reply r;
    ASSERT_EQ(client.read_reply(r, 1000), CLIENT_OK);
    EXPECT_FALSE(r.crcOk);
    ASSERT_EQ(client.read_reply(r, 1000), CLIENT_OK);
    EXPECT_TRUE(r.crcOk);
    EXPECT_EQ(r.msgType, 7u);
}

TEST_F(ReadReply, RefusesImpossibleLengths) {
    struct Case {
        const char* what;
        uint32_t reqType, len;
    } cases[] = {{"data over 65536", 0, 65537},
                 {"control without one word", 1, 0},
                 {"control with two words", 1, 8}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        std::vector<uint8_t> h = encode_packet(c.reqType, 1, 0, 1, 1, 0, 0, nullptr, 0);
        h[12] = static_cast<uint8_t>(c.len >> 24);
        h[13] = static_cast<uint8_t>(c.len >> 16);
        h[14] = static_cast<uint8_t>(c.len >> 8);
        h[15] = static_cast<uint8_t>(c.len);
        put(std::vector<uint8_t>(h.begin(), h.begin() + 20));
        Reply r;
        EXPECT_EQ(client.read_reply(r, 1000), CLIENT_BAD_PACKET);
    }
}

TEST_F(ReadReply, TimesOutOnAStalledPacketAndReportsAClose) {
    std::vector<uint8_t> pkt = hex(QUIT_ACK);
    put(std::vector<uint8_t>(pkt.begin(), pkt.begin() + 25));
    Reply r;
    EXPECT_EQ(client.read_reply(r, 100), CLIENT_TIMEOUT);
    close(peer);
    peer = -1;
    EXPECT_EQ(client.read_reply(r, 1000), CLIENT_CLOSED);
}

TEST(ClientSend, RequestsCarryPeerSeqAndLittleEndianChunkLength) {
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    Client c;
    c.adopt_fd(sv[0]);
    c.peerID = 0xFFFFFFFF;
    c.seqNO = 0xFFFFFF;  // the next one wraps to 0
    ASSERT_EQ(c.request_chunk(20000, 4096, 3), CLIENT_OK);
    ASSERT_EQ(c.ack_last_package(3), CLIENT_OK);
    uint8_t buf[56];
    ASSERT_EQ(read(sv[1], buf, sizeof buf), 56);
    close(sv[1]);
    std::vector<uint8_t> chunk(buf, buf + 28), ack(buf + 28, buf + 56);
    EXPECT_EQ(std::vector<uint8_t>(chunk.begin(), chunk.begin() + 16),
              hex("23 ff ff ff ff ff ff ff 00 00 4e 20 00 00 00 04"));
    EXPECT_EQ(std::vector<uint8_t>(chunk.begin() + 20, chunk.begin() + 24), hex("00 10 00 00"));
    EXPECT_EQ(std::vector<uint8_t>(ack.begin(), ack.begin() + 4), hex("e0 00 00 00"));
    EXPECT_EQ(std::vector<uint8_t>(ack.begin() + 20, ack.begin() + 24), hex("80 00 fb 04"));
    EXPECT_EQ(packet_crc(ack.data(), 4),
              static_cast<uint32_t>(ack[24] << 24 | ack[25] << 16 | ack[26] << 8 | ack[27]));
}

}  // namespace
}  // namespace app
}  // namespace korvel

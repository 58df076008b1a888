// The wire packet against the two worked examples, the checksum's coverage rule and the
// accessors of a received (converted) packet.
#include "core/packet.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace korvel {
namespace {

using Bytes = std::vector<uint8_t>;

Bytes wire(const CPacket& p, uint32_t len) {
    return Bytes(p.buffer(), p.buffer() + len);
}

// Identity 0x00012345, timestamp 1,000,000 us: the numbers of the worked examples.
void fix_identity(CPacket& p) {
    p.set_identity_for_tests(0, 0x00012345, 1000000);
}

TEST(Packet, QuitAcknowledgementIsTheWorkedExampleByteForByte) {
    CPacket p;
    fix_identity(p);
    p.packAck(1, 7, 5, 0, 1, ACK_DONE, 0);
    Bytes expected = {0xa7, 0x00, 0x00, 0x05, 0x00, 0x01, 0x23, 0x45, 0x00, 0x00,
                      0x00, 0x00, 0x00, 0x00, 0x00, 0x04, 0x00, 0x0f, 0x42, 0x40,
                      0x80, 0x00, 0xfb, 0x00, 0xaf, 0xfc, 0x09, 0x28};
    EXPECT_EQ(wire(p, 28), expected);
}

TEST(Packet, DataPacketAndItsZeroCopyTwinAreTheWorkedExample) {
    const uint8_t payload[4] = {0x00, 0x00, 0x10, 0x00};
    Bytes expected = {0x22, 0x00, 0x00, 0x05, 0x00, 0x01, 0x23, 0x45, 0x00, 0x00,
                      0x00, 0x00, 0x00, 0x00, 0x00, 0x04, 0x00, 0x0f, 0x42, 0x40,
                      0x00, 0x00, 0x10, 0x00, 0x0e, 0x87, 0x1e, 0xee};
    CPacket p;
    fix_identity(p);
    p.packData(1, 2, 5, 0, payload, 4);
    EXPECT_EQ(wire(p, 28), expected);

    CPacket q;
    fix_identity(q);
    uint8_t trailer[4];
    q.packDataHeader(1, 2, 5, 0, payload, 4, trailer);
    Bytes split(q.buffer(), q.buffer() + 20);
    split.insert(split.end(), payload, payload + 4);
    split.insert(split.end(), trailer, trailer + 4);
    EXPECT_EQ(split, expected);
}

TEST(Packet, ChecksumIsStandardCrc32AndContinues) {
    const char digits[] = "123456789";
    EXPECT_EQ(crc32_calc(0, digits, 9), 0xCBF43926u);
    uint32_t out = 0;
    uint32_t head = crc32_calc(0, digits, 4);
    EXPECT_EQ(crc32_calc(head, digits + 4, 5, &out), 0xCBF43926u);
    EXPECT_EQ(out, 0xCBF43926u);
}

// A receiver converts the header (and a control packet's ackWord) before checking; the
// CRC of the wire bytes as they stand must not match.
TEST(Packet, ReceivedPacketConvertsAndVerifies) {
    CPacket sent;
    fix_identity(sent);
    sent.packAck(3, 6, 0xABCDEF, 77, 1, 0xFB03, 0x7FFF);
    EXPECT_NE(crc32_calc(0, sent.buffer(), 24), 0xAFFC0928u);
    uint32_t wireCrc = crc32_calc(0, sent.buffer(), 24);

    CPacket got;
    memcpy(got.buffer(), sent.buffer(), 28);
    got.unpackHeader();
    EXPECT_EQ(got.getReqType(), 1u);
    EXPECT_EQ(got.getMarker(), 3u);
    EXPECT_EQ(got.getMsgType(), 6u);
    EXPECT_EQ(got.getSeqNO(), 0xABCDEFu);
    EXPECT_EQ(got.getPeerID(), 0x00012345u);
    EXPECT_EQ(got.getOffset(), 77u);
    EXPECT_EQ(got.getPayloadLen(), 4u);
    EXPECT_EQ(got.getAckWord(), 0xFFFFFB03u);
    EXPECT_EQ(got.getAckFlag(), 1u);
    EXPECT_EQ(got.getAckValue(), 0x7FFFu);
    EXPECT_EQ(got.getAckCode(), 0xFB03u);
    EXPECT_EQ(got.getCrcLen(), 24u);
    EXPECT_EQ(crc32_calc(0, got.buffer(), got.getCrcLen()), got.getCrcData());
    EXPECT_NE(wireCrc, got.getCrcData());
}

TEST(Packet, EmptyDataPacketCoversOnlyTheReversedHeader) {
    CPacket p;
    fix_identity(p);
    p.packData(0, 9, 1, 0, nullptr, 0);
    CPacket got;
    memcpy(got.buffer(), p.buffer(), 24);
    got.unpackHeader();
    EXPECT_EQ(got.getPayloadLen(), 0u);
    EXPECT_EQ(crc32_calc(0, got.buffer(), 20), got.getCrcData());
}

TEST(Packet, IdentityIsInItsRange) {
    for (int i = 0; i < 50; ++i) {
        CPacket p;
        EXPECT_GE(p.getLocalId(), 1u);
        EXPECT_LE(p.getLocalId(), 1048577u);
    }
}

}  // namespace
}  // namespace korvel

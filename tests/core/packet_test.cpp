// The wire packet against the two reference packets, the checksum's coverage rule and the
// accessors of a received (converted) packet.
#include "core/packet.h"

#include <gtest/gtest.h>

#include <cstring>
#include <tuple>
#include <vector>

namespace korvel {
namespace {

using Bytes = std::vector<uint8_t>;

// Identity 0x00012345, timestamp 1,000,000 us: the numbers of the reference packets.
const Bytes QUIT_ACK = {0xa7, 0x00, 0x00, 0x05, 0x00, 0x01, 0x23, 0x45, 0x00, 0x00,
                        0x00, 0x00, 0x00, 0x00, 0x00, 0x04, 0x00, 0x0f, 0x42, 0x40,
                        0x80, 0x00, 0xfb, 0x00, 0xaf, 0xfc, 0x09, 0x28};
const Bytes SIZE_REPLY = {0x22, 0x00, 0x00, 0x05, 0x00, 0x01, 0x23, 0x45, 0x00, 0x00,
                          0x00, 0x00, 0x00, 0x00, 0x00, 0x04, 0x00, 0x0f, 0x42, 0x40,
                          0x00, 0x00, 0x10, 0x00, 0x0e, 0x87, 0x1e, 0xee};

TEST(Packet, ReferencePacketsByteForByteWithAndWithoutACopiedPayload) {
    CPacket ack, data, twin;
    for (CPacket* p : {&ack, &data, &twin}) {
        p->set_identity_for_tests(0, 0x00012345, 1000000);
    }
    ack.packAck(MARKER_LAST, MSG_QUIT, 5, 0, 1, ACK_DONE, 0);
    EXPECT_EQ(Bytes(ack.buffer(), ack.buffer() + 28), QUIT_ACK);
    const uint8_t payload[4] = {0x00, 0x00, 0x10, 0x00};
    data.packData(MARKER_LAST, MSG_DOWNLOAD, 5, 0, payload, 4);
    EXPECT_EQ(Bytes(data.buffer(), data.buffer() + 28), SIZE_REPLY);
    uint8_t trailer[4];
    twin.packDataHeader(MARKER_LAST, MSG_DOWNLOAD, 5, 0, payload, 4, trailer);
    Bytes split(twin.buffer(), twin.buffer() + 20);
    split.insert(split.end(), payload, payload + 4);
    split.insert(split.end(), trailer, trailer + 4);
    EXPECT_EQ(split, SIZE_REPLY);
}

TEST(Packet, ChecksumIsStandardCrc32AndContinues) {
    const char digits[] = "123456789";
    uint32_t out = 0;
    EXPECT_EQ(crc32_calc(0, digits, 9), 0xCBF43926u);
    EXPECT_EQ(crc32_calc(crc32_calc(0, digits, 4), digits + 4, 5, &out), 0xCBF43926u);
    EXPECT_EQ(out, 0xCBF43926u);
}

// A receiver converts the header (and a control packet's ackWord) before checking; the
// CRC of the wire bytes as they stand must not match. An empty data packet covers only
// the header.
TEST(Packet, ReceivedPacketConvertsAndVerifies) {
    CPacket sent, got, empty;
    sent.set_identity_for_tests(0, 0x00012345, 1000000);
    sent.packAck(MARKER_CONT_LAST, MSG_CHUNK_CONT, 0xABCDEF, 77, 1, ACK_BAD_CHECKSUM, 0x7FFF);
    uint32_t wireCrc = crc32_calc(0, sent.buffer(), 24);
    memcpy(got.buffer(), sent.buffer(), 28);
    got.unpackHeader();
    EXPECT_EQ(std::make_tuple(got.getReqType(), got.getMarker(), got.getMsgType(), got.getSeqNO(),
                              got.getPeerID(), got.getOffset(), got.getPayloadLen()),
              std::make_tuple(1u, 3u, 6u, 0xABCDEFu, 0x00012345u, 77u, 4u));
    EXPECT_EQ(std::make_tuple(got.getAckWord(), got.getAckFlag(), got.getAckValue(),
                              got.getAckCode(), got.getCrcLen()),
              std::make_tuple(0xFFFFFB03u, 1u, 0x7FFFu, 0xFB03u, 24u));
    EXPECT_EQ(crc32_calc(0, got.buffer(), got.getCrcLen()), got.getCrcData());
    EXPECT_NE(wireCrc, got.getCrcData());

    sent.packData(0, 9, 1, 0, nullptr, 0);
    memcpy(empty.buffer(), sent.buffer(), 24);
    empty.unpackHeader();
    EXPECT_EQ(empty.getPayloadLen(), 0u);
    EXPECT_EQ(crc32_calc(0, empty.buffer(), 20), empty.getCrcData());
}

}  // namespace
}  // namespace korvel

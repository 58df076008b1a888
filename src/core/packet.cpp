// The wire packet: building, converting and inspecting one packet in its embedded buffer.
// The CRC comes from libdeflate, which picks the CPU's CRC instructions at run time.
#include "core/packet.h"

#include <libdeflate.h>
#include <sys/time.h>

#include <cstdlib>
#include <cstring>

#include "core/byte_order.h"
#include "core/mapping_guard.h"

namespace korvel {

namespace {

uint64_t wall_clock_us() {
    timeval tv{};
    gettimeofday(&tv, nullptr);
    return static_cast<uint64_t>(tv.tv_sec) * 1000000u + static_cast<uint64_t>(tv.tv_usec);
}

// The header words as the checksum sees them: each word least significant byte first.
struct HeaderWords {
    uint32_t w[5];
};

uint32_t header_crc(const HeaderWords& h) {
    uint8_t le[PACKET_HEADER_SIZE];
    for (int i = 0; i < 5; ++i) {
        store_le32(le + 4 * i, h.w[i]);
    }
    return crc32_calc(0, le, sizeof le);
}

void write_wire_header(uint8_t* buf, const HeaderWords& h) {
    for (int i = 0; i < 5; ++i) {
        store_be32(buf + 4 * i, h.w[i]);
    }
}

}  // namespace

uint32_t crc32_calc(uint32_t init, const void* data, uint32_t len, uint32_t* out) {
    uint32_t c = libdeflate_crc32(init, data, len);
    if (out != nullptr) {
        *out = c;
    }
    return c;
}

// buf is not cleared: only built or received bytes are ever read, and leaving the 64 KiB
// untouched keeps an idle app's packet out of resident memory.
CPacket::CPacket() {
    startTime = wall_clock_us();
    // Every packet object reseeds the process-wide generator, so two objects created in the
    // same microsecond draw the same identity.
    srand(static_cast<unsigned>(startTime));
    localId = static_cast<uint32_t>(rand() / 2147483647.0 * 1048576.0) + 1;
}

uint32_t CPacket::timestamp_now() const {
    uint64_t now = fixedNowForTests != 0 ? fixedNowForTests : wall_clock_us();
    return static_cast<uint32_t>(now) - static_cast<uint32_t>(startTime);
}

void CPacket::set_identity_for_tests(uint64_t start, uint32_t id, uint64_t fixedNowUs) {
    startTime = start;
    localId = id;
    fixedNowForTests = fixedNowUs;
}

// The buffer is not cleared first: only the bytes of the packet go on the wire, and
// clearing 64 KiB for every reply would cost more than the reply itself.
void CPacket::packData(uint8_t marker, uint8_t msgType, uint32_t seqNO, uint32_t offset,
                       const void* data, uint32_t len) {
    if (len > PACKET_MAX_PAYLOAD) {
        len = PACKET_MAX_PAYLOAD;  // callers keep within the buffer; never write past it
    }
    uint8_t trailer[PACKET_TRAILER_SIZE];
    packDataHeader(marker, msgType, seqNO, offset, data, len, trailer);
    if (len > 0) {
        memcpy(buf + PACKET_HEADER_SIZE, data, len);
    }
    memcpy(buf + PACKET_HEADER_SIZE + len, trailer, PACKET_TRAILER_SIZE);
}

bool CPacket::packDataHeader(uint8_t marker, uint8_t msgType, uint32_t seqNO, uint32_t offset,
                             const void* data, uint32_t len, uint8_t trailer[4]) {
    HeaderWords h{
        {seqNO | static_cast<uint32_t>(msgType) << 24 | static_cast<uint32_t>(marker) << 29,
         localId, offset, len, timestamp_now()}};
    uint32_t crc = header_crc(h);
    if (len > 0 && !crc32_guarded(crc, data, len, crc)) {
        return false;
    }
    write_wire_header(buf, h);
    store_be32(trailer, crc);
    return true;
}

void CPacket::packAck(uint8_t marker, uint8_t msgType, uint32_t seqNO, uint32_t offset,
                      uint8_t ackFlag, uint16_t ackCode, uint16_t ackValue) {
    HeaderWords h{{seqNO | 0x80000000u | static_cast<uint32_t>(msgType) << 24 |
                       static_cast<uint32_t>(marker) << 29,
                   localId, offset, 4, timestamp_now()}};
    uint32_t ack = static_cast<uint32_t>(ackCode) | static_cast<uint32_t>(ackValue) << 16 |
                   static_cast<uint32_t>(ackFlag) << 31;
    uint8_t ackLe[4];
    store_le32(ackLe, ack);
    uint32_t crc = crc32_calc(header_crc(h), ackLe, sizeof ackLe);
    write_wire_header(buf, h);
    store_be32(buf + PACKET_HEADER_SIZE, ack);
    store_be32(buf + PACKET_HEADER_SIZE + 4, crc);
}

// Converts the header (and a control packet's ackWord) to host order; the trailer stays
// in wire order.
void CPacket::unpackHeader() {
    for (uint32_t i = 0; i < 5; ++i) {
        uint32_t v = load_be32(buf + 4 * i);
        memcpy(buf + 4 * i, &v, 4);
    }
    if (word(0) >> 31) {
        uint32_t v = load_be32(buf + PACKET_HEADER_SIZE);
        memcpy(buf + PACKET_HEADER_SIZE, &v, 4);
    }
}

uint32_t CPacket::word(uint32_t index) const {
    uint32_t v;
    memcpy(&v, buf + 4 * index, 4);
    return v;
}

uint32_t CPacket::getReqType() const {
    return word(0) >> 31;
}
uint32_t CPacket::getMarker() const {
    return (word(0) >> 29) & 3;
}
uint32_t CPacket::getMsgType() const {
    return (word(0) >> 24) & 31;
}
uint32_t CPacket::getSeqNO() const {
    return word(0) & 0xFFFFFF;
}
uint32_t CPacket::getPeerID() const {
    return word(1);
}
uint32_t CPacket::getOffset() const {
    return word(2);
}
uint32_t CPacket::getPayloadLen() const {
    return word(3);
}
uint32_t CPacket::getTimestamp() const {
    return word(4);
}
uint32_t CPacket::getAckWord() const {
    return word(5);
}
uint32_t CPacket::getAckFlag() const {
    return getAckWord() >> 31;
}
uint32_t CPacket::getAckValue() const {
    return (getAckWord() >> 16) & 0x7FFF;
}
uint32_t CPacket::getAckCode() const {
    return getAckWord() & 0xFFFF;
}

// Both are clamped to the buffer so that a header never sends a reader outside it.
uint32_t CPacket::getCrcData() const {
    uint32_t len = getPayloadLen();
    if (len > PACKET_MAX_PAYLOAD) {
        len = PACKET_MAX_PAYLOAD;
    }
    return load_be32(buf + PACKET_HEADER_SIZE + len);
}

uint32_t CPacket::getCrcLen() const {
    uint32_t len = getPayloadLen();
    return (len > PACKET_MAX_PAYLOAD ? PACKET_MAX_PAYLOAD : len) + PACKET_HEADER_SIZE;
}

}  // namespace korvel

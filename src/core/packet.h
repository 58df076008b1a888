// The wire packet: 20-byte header of five big-endian words, payload, CRC-32 trailer.
#pragma once

#include <cstddef>
#include <cstdint>

namespace korvel {

constexpr uint32_t PACKET_HEADER_SIZE = 20;
constexpr uint32_t PACKET_TRAILER_SIZE = 4;
constexpr uint32_t PACKET_BUF_SIZE = 65560;
constexpr uint32_t PACKET_MAX_PAYLOAD = 65536;   // what a built packet may carry
constexpr uint32_t PACKET_MIN_RECV_PAYLOAD = 4;  // what a received packet must carry
constexpr uint32_t PACKET_MAX_RECV_PAYLOAD = 65532;

constexpr uint16_t ACK_DONE = 0xFB00;
constexpr uint16_t ACK_NOT_FOUND = 0xFB02;
constexpr uint16_t ACK_BAD_CHECKSUM = 0xFB03;
constexpr uint16_t ACK_END_OF_DATA = 0xFB04;
constexpr uint16_t ACK_FAILED = 0xFB06;
constexpr uint16_t ACK_TOO_LARGE = 0xFB08;
constexpr uint16_t ACK_BAD_NAME = 0xFB09;
constexpr uint16_t ACK_BAD_LOCATION = 0xFB10;

// Packet kinds (bit 31 of word 0, reqType).
constexpr uint8_t REQ_DATA = 0;
constexpr uint8_t REQ_CONTROL = 1;  // carries one ackWord

// Message types (bits 24-28 of word 0). Data requests:
constexpr uint8_t MSG_DELETE = 1;       // JSON {"media": [names]}
constexpr uint8_t MSG_DOWNLOAD = 2;     // name -> size (little-endian)
constexpr uint8_t MSG_CHUNK = 3;        // chunk request; 4-6 are its continued forms
constexpr uint8_t MSG_CHUNK_CONT4 = 4;  // data forms of the continued chunk request,
constexpr uint8_t MSG_CHUNK_CONT5 = 5;  // served as MSG_CHUNK_CONT
constexpr uint8_t MSG_CHUNK_CONT = 6;   // continued chunk request
constexpr uint8_t MSG_CONFIG = 17;      // transfer parameters and location
constexpr uint8_t MSG_CAPABILITY = 18;  // the capability file
constexpr uint8_t MSG_METADATA = 19;    // one file's metadata JSON
// Control requests (reqType 1):
constexpr uint8_t MSG_CATALOGUE = 0;  // catalogue; its type travels in ackValue
constexpr uint8_t MSG_POSITION = 5;   // transfer position query
constexpr uint8_t MSG_QUIT = 7;
// (control 3 and 6 are the whole-burst chunk requests, MSG_CHUNK and MSG_CHUNK_CONT.)

// Markers (bits 29-30 of word 0).
constexpr uint8_t MARKER_MORE = 0;       // intermediate packet
constexpr uint8_t MARKER_LAST = 1;       // the only or the last packet
constexpr uint8_t MARKER_CONT_MORE = 2;  // intermediate of a continued transfer, "more follows"
constexpr uint8_t MARKER_CONT_LAST = 3;  // the last of a continued transfer

// Standard CRC-32 (init 0 gives the plain checksum); continues a previous value otherwise.
// Also stored into *out when out is given.
uint32_t crc32_calc(uint32_t init, const void* data, uint32_t len, uint32_t* out = nullptr);

class CPacket {
public:
    CPacket();
    CPacket(const CPacket&) = delete;
    CPacket& operator=(const CPacket&) = delete;

    void packData(uint8_t marker, uint8_t msgType, uint32_t seqNO, uint32_t offset,
                  const void* data, uint32_t len);
    void packAck(uint8_t marker, uint8_t msgType, uint32_t seqNO, uint32_t offset, uint8_t ackFlag,
                 uint16_t ackCode, uint16_t ackValue);
    // Zero-copy variant of packData for streamed replies: writes only the wire header into
    // buf[0..20) and the wire trailer into trailer[4]; the payload stays where it is.
    // False when the payload could not be read (a mapping that lost its pages).
    bool packDataHeader(uint8_t marker, uint8_t msgType, uint32_t seqNO, uint32_t offset,
                        const void* data, uint32_t len, uint8_t trailer[4]);
    void unpackHeader();

    // Reads one whole packet (waiting for data as needed): payloadlen + 24, 0 peer closed,
    // -1 read error, -2 bad payloadlen.
    int32_t readFrom(int fd);

    uint32_t getReqType() const;
    uint32_t getMarker() const;
    uint32_t getMsgType() const;
    uint32_t getSeqNO() const;
    uint32_t getPeerID() const;
    uint32_t getOffset() const;
    uint32_t getPayloadLen() const;
    uint32_t getTimestamp() const;
    uint8_t* getPayload() { return buf + PACKET_HEADER_SIZE; }
    const uint8_t* getPayload() const { return buf + PACKET_HEADER_SIZE; }
    uint32_t getAckWord() const;
    uint32_t getAckFlag() const;
    uint32_t getAckValue() const;
    uint32_t getAckCode() const;
    uint32_t getCrcData() const;
    uint32_t getCrcLen() const;
    uint8_t* buffer() { return buf; }
    const uint8_t* buffer() const { return buf; }
    uint32_t getLocalId() const { return localId; }

    // Tests only: fix the identity and clock so built packets are reproducible.
    void set_identity_for_tests(uint64_t start, uint32_t id, uint64_t fixedNowUs);

private:
    uint32_t word(uint32_t index) const;
    uint32_t timestamp_now() const;

    uint8_t buf[PACKET_BUF_SIZE];
    uint64_t startTime;
    uint32_t localId;
    uint64_t fixedNowForTests = 0;  // 0: use the wall clock
};

}  // namespace korvel

// The app side of the protocol: a connection to the server that sends data and control
// packets with a chosen peerID and seqNO, and reads whole replies with their CRC checked.
// Reuses the server's packet code, so both sides agree on the wire format by construction.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "core/packet.h"

namespace korvel {
namespace app {

struct Reply {
    uint32_t reqType = 0;
    uint32_t marker = 0;
    uint32_t msgType = 0;
    uint32_t seqNO = 0;
    uint32_t peerID = 0;  // the server packet object's localId
    uint32_t offset = 0;
    uint32_t timestamp = 0;
    bool crcOk = false;
    uint32_t ackWord = 0;  // control replies
    uint32_t ackFlag = 0, ackValue = 0, ackCode = 0;
    std::vector<uint8_t> payload;  // data replies
};

// Results of read_reply and the connect/send calls.
constexpr int CLIENT_OK = 0;
constexpr int CLIENT_TIMEOUT = -10;
constexpr int CLIENT_CLOSED = -11;
constexpr int CLIENT_ERROR = -12;
constexpr int CLIENT_BAD_PACKET = -13;
constexpr int CLIENT_REFUSED = -14;  // connect_to: nobody listens there

// Largest payload a reply may carry (the server's packet buffer).
constexpr uint32_t REPLY_MAX_PAYLOAD = 65536;

// CRC-32 of a packet laid out in wire order: header words (and a control packet's ackWord)
// enter byte-reversed, the rest of the payload as it stands.
uint32_t packet_crc(const uint8_t* wire, uint32_t payloadlen);

// A whole packet in wire order, trailer included; payload may be null when len is 0.
std::vector<uint8_t> encode_packet(uint32_t reqType, uint32_t marker, uint32_t msgType,
                                   uint32_t seqNO, uint32_t peer, uint32_t offset,
                                   uint32_t timestamp, const void* payload, uint32_t len);

// Short human text for a status code ("not found", "too large", ...), "unknown" otherwise.
const char* ack_code_text(uint32_t code);

class Client {
public:
    Client();
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    int connect_to(const std::string& host, uint16_t port, int timeoutMs = 3000);
    void close_connection();
    // Takes ownership of an already connected socket (tests drive a socketpair this way).
    void adopt_fd(int fd);
    int fd() const { return sock; }

    uint32_t peerID = 1;
    uint32_t seqNO = 1;  // used by the convenience senders, then incremented

    // Raw senders: every field chosen by the caller.
    int send_data(uint32_t peer, uint32_t seq, uint8_t msgType, uint8_t marker, uint32_t offset,
                  const void* payload, uint32_t len);
    int send_ctrl(uint32_t peer, uint32_t seq, uint8_t msgType, uint8_t marker, uint32_t offset,
                  uint8_t ackFlag, uint16_t ackValue, uint16_t ackCode);
    int send_raw(const void* bytes, size_t len);

    // Convenience senders using peerID and the next seqNO.
    int data(uint8_t msgType, const void* payload, uint32_t len, uint32_t offset = 0,
             uint8_t marker = MARKER_LAST);
    int ctrl(uint8_t msgType, uint32_t offset = 0, uint16_t ackValue = 0,
             uint8_t marker = MARKER_LAST, uint8_t ackFlag = 0, uint16_t ackCode = 0);

    // One whole reply, CRC verified (crcOk); CLIENT_OK or a negative result above.
    int read_reply(Reply& reply, int timeoutMs = 5000);
    // The next reply of `msgType` (a reply or acknowledgement of that type), skipping up to
    // 64 others such as the late packets of an abandoned burst. A reply whose CRC does not
    // match is CLIENT_BAD_PACKET.
    int read_reply_of(uint32_t msgType, Reply& reply, int timeoutMs = 5000);

    // Message helpers built on the senders above.
    int configure(uint16_t packsize, uint16_t blocks, const std::string& location = "",
                  bool userDefined = false);
    int request_catalogue(uint16_t type, uint32_t offset, uint8_t marker);
    int request_download(const std::string& name);
    // A data packet; msgType MSG_CHUNK or one of the continued forms.
    int request_chunk(uint32_t offset, uint32_t length, uint8_t msgType = MSG_CHUNK);
    int ack_last_package(uint8_t marker = MARKER_LAST);
    int quit();

    // Sees every packet sent (fromApp true) and every whole reply read, as wire bytes;
    // a capture of the session without capture privileges.
    using Tap = std::function<void(bool fromApp, const uint8_t* bytes, size_t len)>;
    void set_tap(Tap t) { tap = std::move(t); }

    // Further message helpers (all data packets).
    int request_metadata(const std::string& name);
    int request_capability();
    int request_delete(const std::string& json);

private:
    int sock = -1;
    uint64_t startUs = 0;         // timestamps count from here
    std::unique_ptr<CPacket> rx;  // reused for every reply
    Tap tap;
    uint32_t timestamp_now() const;
};

// The configuration payload: location text (1024 bytes), config word and block word.
std::vector<uint8_t> build_config_payload(uint16_t packsize, uint16_t blocks,
                                          const std::string& location, bool userDefined,
                                          uint16_t softwareVer = 0);

}  // namespace app
}  // namespace korvel

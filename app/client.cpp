// The app side of the wire protocol: packet encoding with a chosen peerID, blocking sends,
// and reading one whole reply with a deadline. Replies are decoded by the server's CPacket.
#include "app/client.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <cstring>

#include "core/byte_order.h"
#include "core/packet.h"

namespace korvel {
namespace app {

namespace {

uint64_t wall_us() {
    timeval tv{};
    gettimeofday(&tv, nullptr);
    return static_cast<uint64_t>(tv.tv_sec) * 1000000u + static_cast<uint64_t>(tv.tv_usec);
}

int64_t monotonic_ms() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Waits for fd to become readable (or writable) until the deadline. 1 ready, 0 timeout,
// -1 error.
int wait_fd(int fd, short events, int64_t deadline) {
    for (;;) {
        int64_t left = deadline - monotonic_ms();
        if (left <= 0) {
            return 0;
        }
        pollfd p{fd, events, 0};
        int r = poll(&p, 1, static_cast<int>(left));
        if (r > 0) {
            return 1;
        }
        if (r < 0 && errno != EINTR) {
            return -1;
        }
    }
}

// Reads exactly n bytes before the deadline: CLIENT_OK, CLIENT_TIMEOUT, CLIENT_CLOSED or
// CLIENT_ERROR.
int read_exact(int fd, uint8_t* buf, size_t n, int64_t deadline) {
    size_t got = 0;
    while (got < n) {
        int w = wait_fd(fd, POLLIN, deadline);
        if (w == 0) {
            return CLIENT_TIMEOUT;
        }
        if (w < 0) {
            return CLIENT_ERROR;
        }
        ssize_t r = read(fd, buf + got, n - got);
        if (r == 0) {
            return CLIENT_CLOSED;
        }
        if (r < 0) {
            if (errno == EINTR || errno == EAGAIN) {
                continue;
            }
            return errno == ECONNRESET ? CLIENT_CLOSED : CLIENT_ERROR;
        }
        got += static_cast<size_t>(r);
    }
    return CLIENT_OK;
}

// Non-blocking connect bounded by timeoutMs; the socket is left blocking afterwards.
int connect_with_timeout(int fd, const sockaddr* addr, socklen_t len, int timeoutMs) {
    int flags = fcntl(fd, F_GETFL, 0);
    fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    int r = connect(fd, addr, len);
    if (r < 0 && errno != EINPROGRESS) {
        return errno == ECONNREFUSED ? CLIENT_REFUSED : CLIENT_ERROR;
    }
    if (r < 0) {
        int w = wait_fd(fd, POLLOUT, monotonic_ms() + timeoutMs);
        if (w == 0) {
            return CLIENT_TIMEOUT;
        }
        int err = 0;
        socklen_t elen = sizeof err;
        if (w < 0 || getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &elen) < 0) {
            return CLIENT_ERROR;
        }
        if (err != 0) {
            return err == ECONNREFUSED ? CLIENT_REFUSED : CLIENT_ERROR;
        }
    }
    fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
    return CLIENT_OK;
}

}  // namespace

uint32_t packet_crc(const uint8_t* wire, uint32_t payloadlen) {
    // The checksum sees header words least significant byte first, so reverse them here.
    uint8_t head[24];
    uint32_t words = (wire[0] & 0x80) && payloadlen >= 4 ? 6 : 5;
    for (uint32_t i = 0; i < words; ++i) {
        for (uint32_t b = 0; b < 4; ++b) {
            head[i * 4 + b] = wire[i * 4 + 3 - b];
        }
    }
    uint32_t crc = crc32_calc(0, head, words * 4);
    uint32_t covered = words * 4 - PACKET_HEADER_SIZE;
    if (payloadlen > covered) {
        crc = crc32_calc(crc, wire + words * 4, payloadlen - covered);
    }
    return crc;
}

std::vector<uint8_t> encode_packet(uint32_t reqType, uint32_t marker, uint32_t msgType,
                                   uint32_t seqNO, uint32_t peer, uint32_t offset,
                                   uint32_t timestamp, const void* payload, uint32_t len) {
    std::vector<uint8_t> out(PACKET_HEADER_SIZE + len + PACKET_TRAILER_SIZE);
    uint32_t word0 =
        (reqType & 1) << 31 | (marker & 3) << 29 | (msgType & 31) << 24 | (seqNO & 0xFFFFFF);
    store_be32(&out[0], word0);
    store_be32(&out[4], peer);
    store_be32(&out[8], offset);
    store_be32(&out[12], len);
    store_be32(&out[16], timestamp);
    if (len > 0) {
        memcpy(&out[PACKET_HEADER_SIZE], payload, len);
    }
    store_be32(&out[PACKET_HEADER_SIZE + len], packet_crc(out.data(), len));
    return out;
}

const char* ack_code_text(uint32_t code) {
    switch (code) {
        case ACK_DONE:
            return "done";
        case ACK_NOT_FOUND:
            return "not found";
        case ACK_BAD_CHECKSUM:
            return "bad checksum";
        case ACK_END_OF_DATA:
            return "end of data";
        case ACK_FAILED:
            return "failed";
        case ACK_TOO_LARGE:
            return "too large";
        case ACK_BAD_NAME:
            return "bad name";
        case ACK_BAD_LOCATION:
            return "bad location";
        default:
            return "unknown";
    }
}

std::vector<uint8_t> build_config_payload(uint16_t packsize, uint16_t blocks,
                                          const std::string& location, bool userDefined,
                                          uint16_t softwareVer) {
    // Location text in bytes 0..1023 (a full 1024-byte text needs no NUL), then the
    // configuration word and the block word, both big-endian.
    std::vector<uint8_t> out(1032, 0);
    memcpy(out.data(), location.data(), location.size() < 1024 ? location.size() : 1024);
    uint32_t config = (userDefined ? 0x80000000u : 0u) |
                      static_cast<uint32_t>(softwareVer & 0x7FFF) << 16 | packsize;
    store_be32(&out[1024], config);
    store_be32(&out[1028], blocks);
    return out;
}

Client::Client() : startUs(wall_us()), rx(new CPacket) {}

Client::~Client() {
    close_connection();
}

uint32_t Client::timestamp_now() const {
    return static_cast<uint32_t>(wall_us() - startUs);
}

int Client::connect_to(const std::string& host, uint16_t port, int timeoutMs) {
    close_connection();
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* res = nullptr;
    if (getaddrinfo(host.c_str(), nullptr, &hints, &res) != 0 || res == nullptr) {
        return CLIENT_ERROR;
    }
    sockaddr_in addr{};
    memcpy(&addr, res->ai_addr, sizeof addr);
    freeaddrinfo(res);
    addr.sin_port = htons(port);

    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return CLIENT_ERROR;
    }
    int r = connect_with_timeout(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr, timeoutMs);
    if (r != CLIENT_OK) {
        close(fd);
        return r;
    }
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    sock = fd;
    return CLIENT_OK;
}

void Client::close_connection() {
    if (sock >= 0) {
        close(sock);
        sock = -1;
    }
}

void Client::adopt_fd(int fd) {
    close_connection();
    sock = fd;
}

int Client::send_raw(const void* bytes, size_t len) {
    if (sock < 0) {
        return CLIENT_ERROR;
    }
    const uint8_t* p = static_cast<const uint8_t*>(bytes);
    if (tap) {
        tap(true, p, len);
    }
    size_t done = 0;
    while (done < len) {
        ssize_t w = send(sock, p + done, len - done, MSG_NOSIGNAL);
        if (w < 0 && errno == EINTR) {
            continue;
        }
        if (w <= 0) {
            return errno == EPIPE || errno == ECONNRESET ? CLIENT_CLOSED : CLIENT_ERROR;
        }
        done += static_cast<size_t>(w);
    }
    return CLIENT_OK;
}

int Client::send_data(uint32_t peer, uint32_t seq, uint8_t msgType, uint8_t marker, uint32_t offset,
                      const void* payload, uint32_t len) {
    std::vector<uint8_t> pkt =
        encode_packet(REQ_DATA, marker, msgType, seq, peer, offset, timestamp_now(), payload, len);
    return send_raw(pkt.data(), pkt.size());
}

int Client::send_ctrl(uint32_t peer, uint32_t seq, uint8_t msgType, uint8_t marker, uint32_t offset,
                      uint8_t ackFlag, uint16_t ackValue, uint16_t ackCode) {
    uint8_t ack[4];
    store_be32(ack, static_cast<uint32_t>(ackFlag & 1) << 31 |
                      static_cast<uint32_t>(ackValue & 0x7FFF) << 16 | ackCode);
    std::vector<uint8_t> pkt =
        encode_packet(REQ_CONTROL, marker, msgType, seq, peer, offset, timestamp_now(), ack, 4);
    return send_raw(pkt.data(), pkt.size());
}

int Client::data(uint8_t msgType, const void* payload, uint32_t len, uint32_t offset,
                 uint8_t marker) {
    uint32_t seq = seqNO;
    seqNO = (seqNO + 1) & 0xFFFFFF;
    return send_data(peerID, seq, msgType, marker, offset, payload, len);
}

int Client::ctrl(uint8_t msgType, uint32_t offset, uint16_t ackValue, uint8_t marker,
                 uint8_t ackFlag, uint16_t ackCode) {
    uint32_t seq = seqNO;
    seqNO = (seqNO + 1) & 0xFFFFFF;
    return send_ctrl(peerID, seq, msgType, marker, offset, ackFlag, ackValue, ackCode);
}

int Client::read_reply_of(uint32_t msgType, Reply& reply, int timeoutMs) {
    for (int skipped = 0; skipped < 64; ++skipped) {
        int r = read_reply(reply, timeoutMs);
        if (r != CLIENT_OK) {
            return r;
        }
        if (!reply.crcOk) {
            return CLIENT_BAD_PACKET;
        }
        if (reply.msgType == msgType) {
            return CLIENT_OK;
        }
    }
    return CLIENT_BAD_PACKET;
}

int Client::read_reply(Reply& reply, int timeoutMs) {
    if (sock < 0) {
        return CLIENT_ERROR;
    }
    int64_t deadline = monotonic_ms() + timeoutMs;
    uint8_t* buf = rx->buffer();
    int r = read_exact(sock, buf, PACKET_HEADER_SIZE, deadline);
    if (r != CLIENT_OK) {
        return r;
    }
    uint32_t len = load_be32(buf + 12);
    bool control = (buf[0] & 0x80) != 0;
    if (len > REPLY_MAX_PAYLOAD || (control && len != 4)) {
        return CLIENT_BAD_PACKET;  // the rest of the stream can no longer be framed
    }
    r = read_exact(sock, buf + PACKET_HEADER_SIZE, len + PACKET_TRAILER_SIZE, deadline);
    if (r != CLIENT_OK) {
        return r;
    }
    if (tap) {
        tap(false, buf, PACKET_HEADER_SIZE + len + PACKET_TRAILER_SIZE);
    }
    uint32_t crc = packet_crc(buf, len);
    rx->unpackHeader();
    reply.reqType = rx->getReqType();
    reply.marker = rx->getMarker();
    reply.msgType = rx->getMsgType();
    reply.seqNO = rx->getSeqNO();
    reply.peerID = rx->getPeerID();
    reply.offset = rx->getOffset();
    reply.timestamp = rx->getTimestamp();
    reply.crcOk = crc == load_be32(buf + PACKET_HEADER_SIZE + len);
    reply.ackWord = control ? rx->getAckWord() : 0;
    reply.ackFlag = control ? rx->getAckFlag() : 0;
    reply.ackValue = control ? rx->getAckValue() : 0;
    reply.ackCode = control ? rx->getAckCode() : 0;
    if (control) {
        reply.payload.clear();
    } else {
        reply.payload.assign(rx->getPayload(), rx->getPayload() + len);
    }
    return CLIENT_OK;
}

int Client::configure(uint16_t packsize, uint16_t blocks, const std::string& location,
                      bool userDefined) {
    std::vector<uint8_t> p = build_config_payload(packsize, blocks, location, userDefined);
    return data(MSG_CONFIG, p.data(), static_cast<uint32_t>(p.size()));
}

int Client::request_catalogue(uint16_t type, uint32_t offset, uint8_t marker) {
    return ctrl(MSG_CATALOGUE, offset, type, marker);
}

int Client::request_download(const std::string& name) {
    return data(MSG_DOWNLOAD, name.data(), static_cast<uint32_t>(name.size()));
}

int Client::request_chunk(uint32_t offset, uint32_t length, uint8_t msgType) {
    // The length travels little-endian in the payload, unlike the header words.
    uint8_t le[4];
    store_le32(le, length);
    return data(msgType, le, 4, offset);
}

int Client::ack_last_package(uint8_t marker) {
    return ctrl(MSG_CATALOGUE, 0, 0, marker, 1, ACK_END_OF_DATA);
}

int Client::quit() {
    return ctrl(MSG_QUIT);
}

int Client::request_metadata(const std::string& name) {
    return data(MSG_METADATA, name.data(), static_cast<uint32_t>(name.size()));
}

int Client::request_capability() {
    // The server never reads this payload, but a packet must carry at least four bytes.
    uint8_t zero[4] = {0, 0, 0, 0};
    return data(MSG_CAPABILITY, zero, 4);
}

int Client::request_delete(const std::string& json) {
    return data(MSG_DELETE, json.data(), static_cast<uint32_t>(json.size()));
}

}  // namespace app
}  // namespace korvel

// Moving bytes on non-blocking sockets: whole reads and writes, and the per-connection
// packet assembler the server loop uses so that one stalled peer cannot hold the loop.
#pragma once

#include <cstdint>
#include <memory>

namespace korvel {

class CPacket;

// n when all bytes were written, -1 on failure. Waits for writability with poll; gives up
// (and shuts the connection down) after WRITE_STALL_MS without progress.
int writen(int fd, const void* buf, int n);
// As writen, for a packet made of up to three pieces (header, payload, trailer); also
// WRITE_UNREADABLE when the kernel could not read the pieces (a mapping lost its pages)
// before any byte of them went out, so the stream is still whole.
constexpr int WRITE_UNREADABLE = -4;
int writev_all(int fd, const void* a, int alen, const void* b, int blen, const void* c, int clen);

// Reassembles one packet of one connection across readiness events, reading only the
// bytes of that packet. feed() returns: > 0 whole packet (payloadlen + 24) now in the
// CPacket (header converted); INCOMPLETE; 0 peer closed; -1 read error; -2 bad payloadlen.
// Partial bytes live here between calls.
class PacketAssembler {
public:
    // The rest of the packet has not arrived yet. The assembler's own code: it shares its
    // value with CEventBase::SEND_SOURCE_LOST but never meets it, so compare by name only.
    static constexpr int32_t INCOMPLETE = -3;
    PacketAssembler();
    ~PacketAssembler();
    int32_t feed(int fd, CPacket& packet);
    bool idle() const { return have == 0; }

private:
    void park(const uint8_t* buf);
    void reset();

    std::unique_ptr<uint8_t[]> partial;  // allocated only while a packet is split
    uint32_t capacity = 0;
    uint32_t have = 0;  // bytes of the current packet received so far
    uint32_t need = 0;  // its whole length, once the header is in; 0 before
};

}  // namespace korvel

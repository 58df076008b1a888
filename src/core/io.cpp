// Whole reads and writes on non-blocking sockets, and the per-connection packet assembler.
// Runs on the main thread (reads) and on any thread holding an event base's sendMutex (writes).
#include "core/io.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "core/byte_order.h"
#include "core/config.h"
#include "core/packet.h"

namespace korvel {

namespace {

// Waits until fd is ready for `events`; false when WRITE_STALL_MS passed without it.
// A full send buffer is waited for instead of spun on; a reader that never drains it
// gets its connection shut down, which the loop then notices and cleans up.
bool wait_ready(int fd, short events, int timeoutMs) {
    pollfd p{fd, events, 0};
    for (;;) {
        int r = poll(&p, 1, timeoutMs);
        if (r > 0) {
            return true;
        }
        if (r == 0) {
            return false;
        }
        if (errno != EINTR) {
            return true;  // let the next write report the real error
        }
    }
}

int give_up_stalled(int fd) {
    shutdown(fd, SHUT_RDWR);
    errno = ETIMEDOUT;
    return -1;
}

// A write that fails after part of a packet went out (the payload's pages were lost, say)
// leaves the peer inside a packet that never ends; it would take whatever follows as the
// rest. Such a connection cannot be framed again, so it is shut down like a stalled one.
int give_up_torn(int fd, bool torn) {
    int saved = errno;
    if (torn) {
        shutdown(fd, SHUT_RDWR);
    }
    errno = saved;
    return -1;
}

}  // namespace

int writen(int fd, const void* buf, int n) {
    return writev_all(fd, buf, n, nullptr, 0, nullptr, 0);
}

int writev_all(int fd, const void* a, int alen, const void* b, int blen, const void* c, int clen) {
    iovec iov[3];
    int cnt = 0;
    int total = 0;
    const void* parts[3] = {a, b, c};
    int lens[3] = {alen, blen, clen};
    for (int i = 0; i < 3; ++i) {
        if (lens[i] > 0) {
            iov[cnt].iov_base = const_cast<void*>(parts[i]);
            iov[cnt].iov_len = static_cast<size_t>(lens[i]);
            total += lens[i];
            ++cnt;
        }
    }
    if (total <= 0) {
        return total;
    }
    iovec* cur = iov;
    bool torn = false;  // part of the packet is on the wire
    while (cnt > 0) {
        ssize_t r = writev(fd, cur, cnt);
        if (r == 0) {
            return give_up_torn(fd, torn);
        }
        if (r < 0) {
            if (errno == EINTR) {
                continue;
            }
            if (errno == EFAULT && !torn) {
                return WRITE_UNREADABLE;
            }
            if (errno != EAGAIN && errno != EWOULDBLOCK) {
                return give_up_torn(fd, torn);
            }
            if (!wait_ready(fd, POLLOUT, WRITE_STALL_MS)) {
                return give_up_stalled(fd);
            }
            continue;
        }
        torn = true;
        size_t done = static_cast<size_t>(r);
        while (cnt > 0 && done >= cur->iov_len) {
            done -= cur->iov_len;
            ++cur;
            --cnt;
        }
        if (cnt > 0) {
            cur->iov_base = static_cast<uint8_t*>(cur->iov_base) + done;
            cur->iov_len -= done;
        }
    }
    return total;
}

PacketAssembler::PacketAssembler() = default;
PacketAssembler::~PacketAssembler() = default;

// Reads what the socket has of the current packet into the packet's buffer. A packet that
// arrives whole costs no copy; a split one is parked in `partial` until the rest comes, so
// a peer that stalls mid-packet holds only its own connection.
int32_t PacketAssembler::feed(int fd, CPacket& packet) {
    uint8_t* buf = packet.buffer();
    if (have > 0) {
        memcpy(buf, partial.get(), have);
    }
    for (;;) {
        uint32_t want = have < PACKET_HEADER_SIZE ? PACKET_HEADER_SIZE : need;
        ssize_t r = read(fd, buf + have, want - have);
        if (r > 0) {
            have += static_cast<uint32_t>(r);
            if (have == PACKET_HEADER_SIZE && need == 0) {
                uint32_t len = load_be32(buf + 12);
                if (len < PACKET_MIN_RECV_PAYLOAD || len > PACKET_MAX_RECV_PAYLOAD) {
                    puts("parse payloadlen error");
                    reset();
                    return -2;
                }
                need = len + PACKET_HEADER_SIZE + PACKET_TRAILER_SIZE;
            }
            if (need != 0 && have == need) {
                int32_t total = static_cast<int32_t>(need);
                // Nothing of an earlier, longer packet may show through behind this one.
                memset(buf + need, 0, PACKET_BUF_SIZE - need);
                reset();
                packet.unpackHeader();
                return total;
            }
            continue;
        }
        if (r == 0) {
            bool inHeader = have < PACKET_HEADER_SIZE;
            printf("client is closed, incomplete-size: %d!\n",
                   static_cast<int>(inHeader ? have : have - PACKET_HEADER_SIZE));
            if (inHeader) {
                puts("client end.");
            }
            reset();
            return 0;
        }
        if (errno == EINTR) {
            continue;
        }
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            park(buf);
            return INCOMPLETE;
        }
        perror("read error");
        if (have < PACKET_HEADER_SIZE) {
            puts("recv_peek error ");
        }
        reset();
        return -1;
    }
}

void PacketAssembler::park(const uint8_t* buf) {
    if (have == 0) {
        return;
    }
    uint32_t size = need != 0 ? need : PACKET_HEADER_SIZE;
    if (!partial || capacity < size) {
        partial.reset(new uint8_t[size]);
        capacity = size;
    }
    memcpy(partial.get(), buf, have);
}

void PacketAssembler::reset() {
    partial.reset();
    capacity = 0;
    have = 0;
    need = 0;
}

// The blocking form of the assembler, for callers that own their socket.
int32_t CPacket::readFrom(int fd) {
    PacketAssembler assembler;
    for (;;) {
        int32_t r = assembler.feed(fd, *this);
        if (r != PacketAssembler::INCOMPLETE) {
            return r;
        }
        wait_ready(fd, POLLIN, -1);
    }
}

}  // namespace korvel

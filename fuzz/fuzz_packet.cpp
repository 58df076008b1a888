// Arbitrary byte streams through the per-connection packet assembler, delivered in
// chunks whose sizes come from the first input byte. Every packet it returns must have a
// length inside the accepted range and a checksum span inside the buffer.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "core/io.h"
#include "core/packet.h"

namespace {

// The assembler's diagnostics go to standard output; keep the fuzzer's console readable.
const bool quiet = [] {
    int devnull = open("/dev/null", O_WRONLY);
    if (devnull >= 0) {
        dup2(devnull, 1);
        close(devnull);
    }
    return true;
}();

void check_packet(const korvel::CPacket& p, int32_t r) {
    uint32_t len = p.getPayloadLen();
    if (len < 4 || len > 65532 || r != static_cast<int32_t>(len + 24) ||
        p.getCrcLen() != len + 20) {
        abort();
    }
    volatile uint32_t sink = korvel::crc32_calc(0, p.buffer(), p.getCrcLen()) ^ p.getCrcData() ^
                             p.getAckValue() ^ p.getMsgType();
    (void)sink;
}

// Feeds until the assembler wants more bytes; false once the connection would be closed.
bool drain(int fd, korvel::PacketAssembler& a, korvel::CPacket& p) {
    for (;;) {
        int32_t r = a.feed(fd, p);
        if (r == korvel::PacketAssembler::INCOMPLETE) {
            return true;
        }
        if (r <= 0) {
            return false;
        }
        check_packet(p, r);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) {
        return 0;
    }
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0) {
        return 0;
    }
    fcntl(sv[0], F_SETFL, O_NONBLOCK);
    fcntl(sv[1], F_SETFL, O_NONBLOCK);
    static korvel::CPacket packet;  // 64 KiB; one per process like the server's
    korvel::PacketAssembler assembler;
    uint32_t chunkSeed = data[0] | 1u;
    size_t pos = 1;
    bool open = true;
    while (open && pos < size) {
        size_t chunk = 1 + (chunkSeed * (pos + 7)) % 97;
        if (chunk > size - pos) {
            chunk = size - pos;
        }
        ssize_t w = write(sv[1], data + pos, chunk);
        if (w > 0) {
            pos += static_cast<size_t>(w);
        }
        open = drain(sv[0], assembler, packet);
    }
    close(sv[1]);
    if (open) {
        drain(sv[0], assembler, packet);
    }
    close(sv[0]);
    return 0;
}

// Arbitrary byte streams through the per-connection packet assembler, in chunks whose sizes
// come from the first byte. Every packet it returns has a length inside the accepted range.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "core/io.h"
#include "core/packet.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static bool quiet = dup2(open("/dev/null", O_WRONLY), 1) >= 0;  // the assembler's lines
    static korvel::CPacket packet;  // 64 KiB; one per process like the server's
    int sv[2];
    if (size < 1 || !quiet || socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, sv) != 0) {
        return 0;
    }
    korvel::PacketAssembler assembler;
    int32_t r = korvel::PacketAssembler::INCOMPLETE;
    for (size_t pos = 1; r == korvel::PacketAssembler::INCOMPLETE && sv[1] >= 0;) {
        size_t chunk = std::min<size_t>(1 + (data[0] | 1u) * (pos + 7) % 97, size - pos);
        if (chunk == 0) {
            close(sv[1]);  // the end of the input: the peer goes
            sv[1] = -1;
        }
        pos += chunk == 0 ? 0 : std::max<ssize_t>(write(sv[1], data + pos, chunk), 0);
        while ((r = assembler.feed(sv[0], packet)) > 0) {
            uint32_t len = packet.getPayloadLen();
            if (len < 4 || len > 65532 || r != int32_t(len + 24) ||
                packet.getCrcLen() != len + 20) {
                abort();
            }
        }
    }
    close(sv[0]);
    if (sv[1] >= 0) {
        close(sv[1]);
    }
    return 0;
}

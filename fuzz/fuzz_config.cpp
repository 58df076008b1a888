// Arbitrary configuration payloads through the configuration handler of one long-lived
// event base: at most one answer, texts always terminated, and a refusal exactly for the
// bursts over 200 MiB.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "client/event_base.h"
#include "core/config.h"
#include "core/packet.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static int sv[2] = {-1, -1};
    static korvel::CEventBase* eb = [] {       // inputs build on each other, as in a session
        dup2(open("/dev/null", O_WRONLY), 1);  // trace lines would drown the fuzzer
        korvel::testing_seam::set_sd_root("/tmp/korvel-fuzz-config-card");
        socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, sv);
        return new korvel::CEventBase;
    }();
    static korvel::CPacket packet, reply;
    if (size > korvel::PACKET_MAX_RECV_PAYLOAD) {
        return 0;
    }
    packet.packData(1, korvel::MSG_CONFIG, 1, 0, data, uint32_t(size));
    packet.unpackHeader();
    eb->process_data_file_config(sv[0], packet);
    int replies = 0;
    while (read(sv[1], reply.buffer(), 28) == 28) {
        reply.unpackHeader();
        uint64_t burst = uint64_t(eb->userDefPacksize) * eb->userDefBlocks;
        if (++replies > 1 ||
            reply.getAckCode() !=
                (burst > korvel::MAX_BURST_BYTES ? korvel::ACK_TOO_LARGE : korvel::ACK_DONE)) {
            abort();
        }
    }
    if (strnlen(eb->resourceLocation, sizeof eb->resourceLocation) == sizeof eb->resourceLocation ||
        strnlen(eb->locPostfix, sizeof eb->locPostfix) == sizeof eb->locPostfix) {
        abort();
    }
    return 0;
}

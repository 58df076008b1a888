// Arbitrary configuration payloads through the configuration handler of one long-lived
// event base. Whatever the bytes, the handler answers at most once, refuses exactly the
// bursts over 200 MiB, and leaves the location either as it was or on the card's media root.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "client/event_base.h"
#include "core/config.h"
#include "core/packet.h"

namespace {

const char* const kCard = "/tmp/korvel-fuzz-config-card";

struct Rig {
    int sv[2] = {-1, -1};
    korvel::CEventBase* eb = nullptr;
    Rig() {
        int devnull = open("/dev/null", O_WRONLY);  // trace lines would drown the fuzzer
        if (devnull >= 0) {
            dup2(devnull, 1);
            close(devnull);
        }
        korvel::testing_seam::set_sd_root(kCard);
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0) {
            abort();
        }
        fcntl(sv[1], F_SETFL, O_NONBLOCK);
        eb = new korvel::CEventBase;  // lives for the whole run; inputs build on each other
    }
};

void check(bool ok) {
    if (!ok) {
        abort();
    }
}

// The acknowledgements the handler wrote: their count, and the code of the last one.
int drain(int fd, uint32_t* code) {
    static korvel::CPacket reply;
    int n = 0;
    const uint32_t ackLen = korvel::PACKET_HEADER_SIZE + 4 + korvel::PACKET_TRAILER_SIZE;
    while (read(fd, reply.buffer(), ackLen) == static_cast<ssize_t>(ackLen)) {
        reply.unpackHeader();
        check(reply.getMsgType() == 17 && reply.getAckFlag() == 1);
        *code = reply.getAckCode();
        ++n;
    }
    return n;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Rig rig;
    static korvel::CPacket packet;
    if (size > korvel::PACKET_MAX_RECV_PAYLOAD) {
        return 0;
    }
    korvel::CEventBase& eb = *rig.eb;
    // The packet as the loop hands it over: built in wire order, header then converted.
    packet.packData(1, 17, 1, 0, data, static_cast<uint32_t>(size));
    packet.unpackHeader();
    check(packet.getPayloadLen() == size && packet.getMsgType() == 17);

    std::string locationBefore = eb.resourceLocation;
    uint32_t packBefore = eb.userDefPacksize, blocksBefore = eb.userDefBlocks;
    eb.process_data_file_config(rig.sv[0], packet);
    uint32_t code = 0;
    int replies = drain(rig.sv[1], &code);

    check(strnlen(eb.resourceLocation, sizeof eb.resourceLocation) < sizeof eb.resourceLocation);
    check(strnlen(eb.locPostfix, sizeof eb.locPostfix) < sizeof eb.locPostfix);
    if (size >= 2048) {
        check(replies == 0 && eb.resourceLocation == locationBefore &&
              eb.userDefPacksize == packBefore && eb.userDefBlocks == blocksBefore);
        return 0;
    }
    check(replies == 1);
    uint64_t burst = static_cast<uint64_t>(eb.userDefPacksize) * eb.userDefBlocks;
    check(eb.userDefPacksize <= 0xFFFF && eb.userDefBlocks <= 0xFFFF);
    if (burst > korvel::MAX_BURST_BYTES) {
        check(code == korvel::ACK_TOO_LARGE && eb.resourceLocation == locationBefore);
    } else {
        check(code == korvel::ACK_DONE);
        check(eb.resourceLocation == std::string(kCard) + "/DCIM" && eb.resourceLocationId == 0);
    }
    return 0;
}

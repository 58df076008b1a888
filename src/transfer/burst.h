// The one burst loop behind the four streamed senders (chunk stream and thumbnail,
// capability file, metadata reply, catalogue): packet count, marker rule, pause, quit
// check and the log lines they share. Each sender keeps its own checks and replies.
#pragma once

#include <cstdint>

namespace korvel {

class CEventBase;

enum class BurstEnd {
    LastSent,    // the last packet of the source went out
    BlocksUsed,  // userDefBlocks packets went out before the end
    Quit,        // quitRequested was seen (before a packet or after a pause)
    SendFailed,  // a send failed: logged, sendFailed set
    SourceLost,  // the payload could not be read (the file shrank): 0xFB06 sent
    Empty,       // nothing to send: pos >= end, or a burst size of 0
};

struct BurstPlan {
    int fd = -1;
    uint8_t msgType = 0;
    const uint8_t* base = nullptr;  // the byte at position 0
    uint32_t pos = 0;               // first position sent; it is also the header offset
    uint32_t end = 0;               // one past the last position of the source
    bool continues = false;         // last packet marked 2: the file goes on past the region
};

inline BurstPlan make_plan(int fd, uint8_t msgType, const uint8_t* base, uint32_t pos, uint32_t end,
                           bool continues = false) {
    BurstPlan plan;
    plan.fd = fd;
    plan.msgType = msgType;
    plan.base = base;
    plan.pos = pos;
    plan.end = end;
    plan.continues = continues;
    return plan;
}

struct BurstResult {
    BurstEnd end = BurstEnd::Empty;
    int32_t lastResult = 0;  // result of the last send (bytes written or negative)
    uint32_t pos = 0;        // position after the last packet sent
};

BurstResult send_burst(CEventBase& eb, const BurstPlan& plan);

// The pause between two packets of a burst.
void burst_pause();

}  // namespace korvel

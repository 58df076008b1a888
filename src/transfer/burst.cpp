// The one burst loop behind the chunk stream, the thumbnail stream, the capability file,
// the metadata reply and the catalogue.
#include "transfer/burst.h"

#include <time.h>

#include "client/event_base.h"
#include "core/packet.h"
#include "log/log.h"

namespace korvel {

namespace {

constexpr long PAUSE_NS = 5000;

uint8_t middle_marker(const CEventBase& eb) {
    return eb.readOffset != 0 ? MARKER_CONT_MORE : MARKER_MORE;
}

uint8_t last_marker(const CEventBase& eb, bool continues) {
    if (continues) {
        return MARKER_CONT_MORE;
    }
    return eb.readOffset != 0 ? MARKER_CONT_LAST : MARKER_LAST;
}

BurstResult failed(CEventBase& eb, const BurstPlan& plan, int32_t result, uint32_t pos) {
    if (result == CEventBase::SEND_SOURCE_LOST) {
        // Nothing of the packet went out, so the app can still be told, in order.
        eb.send_status(plan.fd, plan.msgType, ACK_FAILED);
        return BurstResult{BurstEnd::SourceLost, result, pos};
    }
    log_print(1, "send failed %d, offset %d\n", static_cast<int>(result), static_cast<int>(pos));
    eb.sendFailed = 1;
    return BurstResult{BurstEnd::SendFailed, result, pos};
}

}  // namespace

// The pause is a wait on the monotonic clock, not a sleep: usleep(5) lasts about 80 us
// under the default timer slack (about 20 us at the smallest), which would cost a
// 64 KiB-packet stream most of its speed, while 5 us of waiting per packet costs less CPU
// than writing the packet does.
void burst_pause() {
    timespec start{}, now{};
    clock_gettime(CLOCK_MONOTONIC, &start);
    do {
        clock_gettime(CLOCK_MONOTONIC, &now);
    } while ((now.tv_sec - start.tv_sec) * 1000000000L + (now.tv_nsec - start.tv_nsec) < PAUSE_NS);
}

// Sends at most userDefBlocks packets of at most userDefPacksize bytes from base + pos
// up to end; each packet's header offset is its position. The quit flag is checked
// before every packet, the pause comes only between packets. A packet size or block
// count of 0 sends nothing.
BurstResult send_burst(CEventBase& eb, const BurstPlan& plan) {
    const uint32_t packsize = eb.userDefPacksize;
    const uint32_t blocks = eb.userDefBlocks;
    BurstResult r{BurstEnd::Empty, 0, plan.pos};
    if (plan.pos >= plan.end || packsize == 0 || blocks == 0) {
        return r;
    }
    uint32_t pos = plan.pos;
    for (uint32_t count = 1;; ++count) {
        if (eb.quitRequested) {
            return BurstResult{BurstEnd::Quit, r.lastResult, pos};
        }
        uint32_t left = plan.end - pos;
        if (left <= packsize) {
            uint8_t marker = last_marker(eb, plan.continues);
            int32_t sent =
                eb.send_msg_data_to_app(plan.fd, marker, plan.msgType, pos, plan.base + pos, left);
            if (sent < 0) {
                return failed(eb, plan, sent, pos);
            }
            log_print(1, "debug, status %d, data read offset = %u, %u, %d\n",
                      static_cast<int>(sent), pos, plan.end, marker);
            return BurstResult{BurstEnd::LastSent, sent, plan.end};
        }
        int32_t sent = eb.send_msg_data_to_app(plan.fd, middle_marker(eb), plan.msgType, pos,
                                               plan.base + pos, packsize);
        if (sent < 0) {
            return failed(eb, plan, sent, pos);
        }
        log_print(1, "data read offset = %u, %u, %u\n", pos, plan.end, packsize);
        pos += packsize;
        r.lastResult = sent;
        if (count == blocks) {
            return BurstResult{BurstEnd::BlocksUsed, sent, pos};
        }
        burst_pause();
    }
}

}  // namespace korvel

// Replies to the app and the loop's per-packet checks, as members of the event base.
// A reply made on the server loop's thread is queued for the app's worker, so the loop
// never waits for a slow reader; on any other thread it is written in place, sendMutex
// making each packet one step. Either way one event base's packets never interleave.
#include <cstdio>
#include <cstring>
#include <new>

#include "client/event_base.h"
#include "core/io.h"
#include "core/mapping_guard.h"
#include "log/log.h"

namespace korvel {

namespace {

const char* const DATA_SIG =
    "int32_t korvel::CEventBase::send_msg_data_to_app(int, uint8_t, uint8_t, uint32_t, const void*, "
    "uint32_t)";

HandlerTask reply_task(int fd, uint8_t marker, uint8_t msgType, uint32_t offset, uint32_t seqNO) {
    HandlerTask t;
    t.type = TASK_REPLY;
    t.fd = fd;
    t.marker = marker;
    t.msgType = msgType;
    t.offset = offset;
    t.seqNO = seqNO;
    return t;
}

// The queued form of a reply: its bytes are copied now, since the buffer they lie in (the
// receive packet, a region) may change before the worker writes them. The result is what
// the write will be, so callers go on as after a write; -1 when the app already has
// REPLY_QUEUE_MAX_BYTES waiting, which callers treat as a failed write.
int32_t hand_over(CEventBase& eb, HandlerTask t, uint32_t size) {
    if (!eb.queue_reply(std::move(t))) {
        log_warn("[WARN],%sreply queue full\n", DATA_SIG);
        return -1;
    }
    return static_cast<int32_t>(size);
}

int32_t write_data(CEventBase& eb, int fd, uint8_t marker, uint8_t msgType, uint32_t seqNO,
                   uint32_t offset, const void* data, uint32_t len) {
    MutexLock guard(eb.sendMutex);
    uint8_t trailer[PACKET_TRAILER_SIZE];
    if (!eb.sendPacket.packDataHeader(marker, msgType, seqNO, offset, data, len, trailer)) {
        log_print(1, "payload unreadable, offset %u, size %u\n", offset, len);
        return CEventBase::SEND_SOURCE_LOST;  // nothing written: the stream is still whole
    }
    int size = static_cast<int>(len + PACKET_HEADER_SIZE + PACKET_TRAILER_SIZE);
    // Fixed trace text: 329 is part of it, not this line's number; keep it as it is.
    log_print(1, "[%s:%d]msgtype = %02x,marker = %02x,message_size = %d\n", "send_msg_data_to_app",
              329, msgType, marker, size);
    int r = writev_all(fd, eb.sendPacket.buffer(), PACKET_HEADER_SIZE, data, static_cast<int>(len),
                       trailer, PACKET_TRAILER_SIZE);
    if (r == WRITE_UNREADABLE) {
        log_print(1, "payload unreadable, offset %u, size %u\n", offset, len);
        return CEventBase::SEND_SOURCE_LOST;
    }
    if (r < 0) {
        perror("writen error");
    }
    return r;
}

int32_t write_ack(CEventBase& eb, int fd, uint8_t marker, uint8_t msgType, uint32_t seqNO,
                  uint32_t offset, uint8_t ackFlag, uint16_t ackCode, uint16_t ackValue) {
    MutexLock guard(eb.sendMutex);
    eb.sendPacket.packAck(marker, msgType, seqNO, offset, ackFlag, ackCode, ackValue);
    int r = writen(fd, eb.sendPacket.buffer(), PACKET_HEADER_SIZE + 4 + PACKET_TRAILER_SIZE);
    if (r < 0) {
        perror("writen error");
    }
    return r;
}

}  // namespace

// The payload goes out from where it lies (often a file mapping): the header and trailer
// are built beside it and one writev sends all three, so nothing is copied or cleared.
int32_t CEventBase::send_msg_data_to_app(int fd, uint8_t marker, uint8_t msgType, uint32_t offset,
                                         const void* data, uint32_t len) {
    if (len > PACKET_MAX_PAYLOAD || (data == nullptr && len > 0)) {
        return -1;
    }
    if (on_loop_thread()) {
        // The payload may lie in a mapping whose pages are gone: touched under the guard
        // first, so such a reply fails like the worker's does instead of faulting the loop.
        uint32_t crc = 0;
        if (len > 0 && !crc32_guarded(0, data, len, crc)) {
            log_print(1, "payload unreadable, offset %u, size %u\n", offset, len);
            return SEND_SOURCE_LOST;
        }
        HandlerTask t = reply_task(fd, marker, msgType, offset, replySeqNO);
        if (len > 0) {
            t.payload.reset(new (std::nothrow) char[len + 1]);
            if (!t.payload) {
                return -1;
            }
            memcpy(t.payload.get(), data, len);
            t.payloadLen = len;
        }
        return hand_over(*this, std::move(t), len + PACKET_HEADER_SIZE + PACKET_TRAILER_SIZE);
    }
    flush_replies();  // answers the loop handed over go between the packets of a burst
    return write_data(*this, fd, marker, msgType, replySeqNO, offset, data, len);
}

int32_t CEventBase::send_msg_ack_to_app(int fd, uint8_t marker, uint8_t msgType, uint32_t offset,
                                        uint8_t ackFlag, uint16_t ackCode, uint16_t ackValue) {
    if (on_loop_thread()) {
        HandlerTask t = reply_task(fd, marker, msgType, offset, replySeqNO);
        t.isAck = true;
        t.ackFlag = ackFlag;
        t.ackCode = ackCode;
        t.value = ackValue;
        return hand_over(*this, std::move(t), PACKET_HEADER_SIZE + 4 + PACKET_TRAILER_SIZE);
    }
    flush_replies();
    return write_ack(*this, fd, marker, msgType, replySeqNO, offset, ackFlag, ackCode, ackValue);
}

void CEventBase::send_queued_reply(HandlerTask& t) {
    if (t.isAck) {
        write_ack(*this, t.fd, t.marker, t.msgType, t.seqNO, t.offset, t.ackFlag, t.ackCode,
                  t.value);
    } else {
        write_data(*this, t.fd, t.marker, t.msgType, t.seqNO, t.offset, t.payload.get(),
                   t.payloadLen);
    }
}

int32_t CEventBase::send_status(int fd, uint8_t msgType, uint16_t ackCode) {
    return send_msg_ack_to_app(fd, MARKER_LAST, msgType, 0, 1, ackCode, 0);
}

int32_t CEventBase::check_seq_no(CPacket& packet) {
    uint32_t seq = packet.getSeqNO();
    if (seq < lastSeqNO) {
        return -1;
    }
    lastSeqNO = seq;
    replySeqNO = seq;
    return 0;
}

int32_t CEventBase::check_crc(int fd, CPacket& packet) {
    uint32_t c = crc32_calc(0, packet.buffer(), packet.getCrcLen());
    log_print(1, "checksum: %u, getCrcData: %u\n", c, packet.getCrcData());
    if (c == packet.getCrcData()) {
        return 0;
    }
    log_print(1, "crcsum check error\n");
    send_msg_ack_to_app(fd, static_cast<uint8_t>(packet.getMarker()),
                        static_cast<uint8_t>(packet.getMsgType()), 0, 1, ACK_BAD_CHECKSUM, 0);
    return -1;
}

uint8_t CEventBase::quit_received() {
    log_print(1, "quit cient received %d, %d, %d. \n", quitRequested.load(), lastPackageDone.load(),
              sendFailed.load());
    if (quitRequested || lastPackageDone) {
        return 1;
    }
    return sendFailed;
}

}  // namespace korvel

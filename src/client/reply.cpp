// Replies to the app and the loop's per-packet checks, as members of the event base.
// Replies come from the main thread and the worker; sendMutex makes each packet one step.
#include <cstdio>
#include <mutex>

#include "client/event_base.h"
#include "core/io.h"
#include "log/log.h"

namespace korvel {

// The payload goes out from where it lies (often a file mapping): the header and trailer
// are built beside it and one writev sends all three, so nothing is copied or cleared.
int32_t CEventBase::send_msg_data_to_app(int fd, uint8_t marker, uint8_t msgType, uint32_t offset,
                                         const void* data, uint32_t len) {
    if (len > PACKET_MAX_PAYLOAD || (data == nullptr && len > 0)) {
        return -1;
    }
    MutexLock guard(sendMutex);
    uint8_t trailer[PACKET_TRAILER_SIZE];
    if (!sendPacket.packDataHeader(marker, msgType, replySeqNO, offset, data, len, trailer)) {
        log_print(1, "payload unreadable, offset %u, size %u\n", offset, len);
        return SEND_SOURCE_LOST;  // nothing written: the stream is still whole
    }
    int size = static_cast<int>(len + PACKET_HEADER_SIZE + PACKET_TRAILER_SIZE);
    // Fixed trace text: 329 is part of it, not this line's number; keep it as it is.
    log_print(1, "[%s:%d]msgtype = %02x,marker = %02x,message_size = %d\n", "send_msg_data_to_app",
              329, msgType, marker, size);
    int r = writev_all(fd, sendPacket.buffer(), PACKET_HEADER_SIZE, data, static_cast<int>(len),
                       trailer, PACKET_TRAILER_SIZE);
    if (r < 0) {
        perror("writen error");
    }
    return r;
}

int32_t CEventBase::send_msg_ack_to_app(int fd, uint8_t marker, uint8_t msgType, uint32_t offset,
                                        uint8_t ackFlag, uint16_t ackCode, uint16_t ackValue) {
    MutexLock guard(sendMutex);
    sendPacket.packAck(marker, msgType, replySeqNO, offset, ackFlag, ackCode, ackValue);
    int r = writen(fd, sendPacket.buffer(), PACKET_HEADER_SIZE + 4 + PACKET_TRAILER_SIZE);
    if (r < 0) {
        perror("writen error");
    }
    return r;
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

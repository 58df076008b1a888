// Dispatch of one accepted packet to an immediate handler or a queued task (main thread).
#include <arpa/inet.h>

#include <cstring>
#include <memory>
#include <new>

#include "client/event_base.h"
#include "core/byte_order.h"
#include "log/log.h"

namespace korvel {

namespace {

// A chunk request's byte count travels little-endian in the first payload word.
uint32_t first_word_le(const CPacket& packet) {
    return load_le32(packet.getPayload());
}

HandlerTask make_task(uint8_t type, int fd, uint32_t offset, uint32_t length) {
    HandlerTask task;
    task.type = type;
    task.fd = fd;
    task.offset = offset;
    task.length = length;
    return task;
}

// The receive buffer is reused for the next packet while the task waits, so the task
// carries its own NUL-terminated copy of the JSON text.
HandlerTask make_delete_task(int fd, const CPacket& packet) {
    HandlerTask task = make_task(TASK_DELETE, fd, 0, 0);
    uint32_t len = packet.getPayloadLen();
    task.payload.reset(new (std::nothrow) char[len + 1]);
    if (!task.payload) {
        return task;  // refused by queue() below: a delete task needs its text
    }
    memcpy(task.payload.get(), packet.getPayload(), len);
    task.payload[len] = '\0';
    task.payloadLen = len;
    return task;
}

// A task the app's queue has no room for is dropped with a warning: the app asked for more
// work than it waits for, and the server must not hold it all.
void queue(CEventBase& eb, HandlerTask task) {
    uint8_t type = task.type;
    if ((type == TASK_DELETE && !task.payload) || !eb.queue_task(std::move(task))) {
        log_warn("[WARN],%stask queue full, task %d dropped\n",
                 "int32_t korvel::CEventBase::event_base_process(int, korvel::CPacket&)",
                 static_cast<int>(type));
    }
}

}  // namespace

int32_t CEventBase::event_base_process(int fd, CPacket& packet) {
    if (packet.getReqType() == REQ_DATA) {
        event_base_process_data(fd, packet);
    } else {
        event_base_process_ctrl(fd, packet);
    }
    return 0;
}

int32_t CEventBase::event_base_process_data(int fd, CPacket& packet) {
    uint32_t msgType = packet.getMsgType();
    switch (msgType) {
        case MSG_CATALOGUE:  // control-only types: ignored as data
        case MSG_QUIT:
            return 0;
        case MSG_DELETE:
            queue(*this, make_delete_task(fd, packet));
            return 0;
        case MSG_DOWNLOAD:
            process_data_file_download(fd, packet);
            return 0;
        case MSG_CHUNK:
            queue(*this, make_task(TASK_STREAM3, fd, packet.getOffset(), first_word_le(packet)));
            return 0;
        case MSG_CHUNK_CONT4:
        case MSG_CHUNK_CONT5:
        case MSG_CHUNK_CONT:
            queue(*this, make_task(TASK_STREAM6, fd, packet.getOffset(), first_word_le(packet)));
            return 0;
        case MSG_CONFIG:
            process_data_file_config(fd, packet);
            return 0;
        case MSG_CAPABILITY:
            process_cap_get(fd);
            return 0;
        case MSG_METADATA:
            process_data_file_metadata(fd, packet);
            return 0;
        default:
            log_warn("[WARN],%sunknown message type!\n",
                     "int32_t korvel::CEventBase::event_base_process_data(int, korvel::CPacket&)");
            return -1;
    }
}

int32_t CEventBase::event_base_process_ctrl(int fd, CPacket& packet) {
    if (check_last_package(packet) != 0) {
        return 0;
    }
    switch (packet.getMsgType()) {
        case MSG_CATALOGUE: {
            HandlerTask task = make_task(TASK_CATALOGUE, fd, packet.getOffset(), 0);
            task.marker = static_cast<uint8_t>(packet.getMarker());
            task.value = static_cast<uint16_t>(packet.getAckValue());
            queue(*this, std::move(task));
            return 0;
        }
        case MSG_DELETE:  // data-only types: ignored as control
        case MSG_DOWNLOAD:
        case MSG_CHUNK_CONT4:
        case MSG_CONFIG:
            return 0;
        case MSG_CHUNK:
            queue(*this, make_task(TASK_STREAM3, fd, packet.getOffset(), 0));
            return 0;
        case MSG_POSITION:
            reply_transfer_position(fd);
            return 0;
        case MSG_CHUNK_CONT:
            queue(*this, make_task(TASK_STREAM6, fd, packet.getOffset(), 0));
            return 0;
        case MSG_QUIT:
            process_quit(fd);
            return 0;
        default:
            log_warn("[WARN],%sunknown message type!\n",
                     "int32_t korvel::CEventBase::event_base_process_ctrl(int, korvel::CPacket&)");
            return -1;
    }
}

int32_t CEventBase::check_last_package(CPacket& packet) {
    if (packet.getAckFlag() == 0) {
        return 0;
    }
    if (packet.getAckCode() != ACK_END_OF_DATA) {
        return -1;
    }
    if (packet.getMsgType() != MSG_CATALOGUE) {
        return 1;
    }
    if ((packet.getMarker() & 0xFD) != MARKER_LAST) {  // MARKER_LAST or MARKER_CONT_LAST
        return 1;
    }
    log_print(1, "got last package finished ...");
    lastPackageDone = 1;
    return 1;
}

void CEventBase::reply_transfer_position(int fd) {
    positionWord = htonl(userDefPacksize + readOffset);
    send_msg_data_to_app(fd, MARKER_LAST, MSG_POSITION, 0, &positionWord, sizeof positionWord);
}

int32_t CEventBase::process_quit(int fd) {
    quitRequested = 1;
    return send_status(fd, MSG_QUIT, ACK_DONE);
}

}  // namespace korvel

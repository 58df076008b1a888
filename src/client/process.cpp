// Execution of one queued task on the worker thread; busy is raised around every task so
// the destructor can wait for it.
#include "client/event_base.h"

namespace korvel {

void CEventBase::process(HandlerTask& task) {
    if (task.type == TASK_REPLY) {
        send_queued_reply(task);
        return;
    }
    busy = 1;
    switch (task.type) {
        case TASK_CATALOGUE:
            json_file_list_send(task.fd, task.marker, task.value, task.offset);
            break;
        case TASK_DELETE:
            process_file_delete(task.fd, task.payload.get());
            break;
        case TASK_STREAM3:
            // Read now, not when queued: a download answered meanwhile decides the sender.
            if (thumbReady) {
                transfer_thumbnail_data(task.fd, task.offset);
            } else {
                transfer_file_data(task.fd, MSG_CHUNK, task.offset, task.length);
            }
            break;
        case TASK_STREAM6:
            transfer_file_data(task.fd, MSG_CHUNK_CONT, task.offset, task.length);
            break;
        default:
            break;
    }
    busy = 0;
}

}  // namespace korvel

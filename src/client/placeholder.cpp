// Placeholder definitions until the real ones land; deleted by the client work.
#include "catalogue/json_file.h"
#include "client/event_base.h"

namespace korvel {
Handler::Handler() {}
Handler::~Handler() {}
void Handler::threadEntrance(Handler*) {}
void Handler::queue_task(HandlerTask) {}
void Handler::start_worker() {}
void Handler::stop_worker() {}
CEventBase::CEventBase()
    : fileName{}, downFileName{}, thumbBuf{}, ctimePath{}, resourceLocation{}, locPostfix{} {
    mediaRecord.reset(new CJSONFile());
}
CEventBase::~CEventBase() {}
void CEventBase::process(HandlerTask&) {}
int32_t CEventBase::event_base_process(int, CPacket&) { return 0; }
int32_t CEventBase::event_base_process_data(int, CPacket&) { return 0; }
int32_t CEventBase::event_base_process_ctrl(int, CPacket&) { return 0; }
int32_t CEventBase::check_last_package(CPacket&) { return 0; }
void CEventBase::reply_transfer_position(int) {}
int32_t CEventBase::process_quit(int) { return -1; }
}  // namespace korvel

// Placeholder definitions until the real ones land; deleted by the delete work.
#include "client/event_base.h"
#include "delete/deleter.h"

namespace korvel {
DWF_DELHandler* mdeletehanlder = nullptr;
DWF_DELHandler::DWF_DELHandler() {}
DWF_DELHandler::~DWF_DELHandler() {}
void DWF_DELHandler::DelEntrance(DWF_DELHandler*) {}
void DWF_DELHandler::remove_file(const std::string&) {}
void DWF_DELHandler::queue_path(const std::string&) {}
void DWF_DELHandler::start() {}
void CEventBase::process_file_delete(int, char*) {}
void CEventBase::json_file_delete(int, const char*) {}
}  // namespace korvel

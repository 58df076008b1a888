// Placeholder definitions until the real ones land; deleted by the transfer work.
#include "client/event_base.h"
#include "transfer/burst.h"
#include "transfer/paths.h"

namespace korvel {
std::string get_sd_root() { return ""; }
std::string get_media_dir_name() { return "MEDIA"; }
std::string get_storage_root(int32_t) { return ""; }
int32_t get_storage_id(const std::string&) { return -1; }
bool is_confined(const char*, const std::string&, const std::string&) { return false; }
size_t copy_text(char* dst, size_t cap, const char* src) { if (cap) dst[0] = 0; return 0; (void)src; }
BurstResult send_burst(CEventBase&, const BurstPlan&) { return {}; }
void burst_pause() {}
void CEventBase::process_data_file_config(int, CPacket&) {}
int32_t CEventBase::get_abs_file_dir(const char*, std::string&, std::string&) { return -1; }
LocationSnapshot CEventBase::location_snapshot() { return LocationSnapshot{}; }
int32_t CEventBase::event_switch_meminfo(int, uint8_t) { return -1; }
void CEventBase::release_region() {}
int32_t CEventBase::download_file_name_check(CPacket&) { return -1; }
int32_t CEventBase::process_data_file_download(int, CPacket&) { return -1; }
void CEventBase::process_cap_get(int) {}
int32_t CEventBase::process_data_file_metadata(int, CPacket&) { return -1; }
int32_t CEventBase::transfer_file_data(int, uint8_t, uint32_t, uint32_t) { return -1; }
void CEventBase::transfer_thumbnail_data(int, uint32_t) {}
}  // namespace korvel

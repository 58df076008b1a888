// Placeholder definitions until the real ones land; deleted by the catalogue work.
#include "catalogue/json_file.h"
#include "client/event_base.h"

namespace korvel {
CJSONFile::CJSONFile() : dispName{}, fullPath{}, fileSize{}, createDate{}, maker{}, model{},
    resUnit{}, colourSpace{}, duration{}, avgBitRate{}, frameRate{}, codeFormat{}, width{}, height{} {}
void CJSONFile::set_names(const char*, const char*) {}
int CJSONFile::gather_facts(bool, bool) { return -1; }
void CJSONFile::read_file_facts() {}
int CJSONFile::read_photo_facts() { return -1; }
int CJSONFile::read_video_facts() { return -1; }
void CJSONFile::get_json_photo_param(cJSON*, const char*) {}
void CJSONFile::get_json_video_param(cJSON*, const char*) {}
void CJSONFile::clear_facts() {}
void CEventBase::json_file_list_send(int, uint8_t, uint16_t, uint32_t) {}
void CEventBase::json_file_list_create(uint32_t* length) { *length = 0; }
int32_t CEventBase::json_look_from_dir(cJSON*) { return -1; }
void CEventBase::json_media_type_classify(char*, const char*, int32_t) {}
void CEventBase::json_look_by_filetime(char*, const char*, const uint16_t&, int32_t) {}
bool CEventBase::is_recent(int32_t) { return false; }
int32_t CEventBase::json_look_by_filetype(cJSON*, int32_t) { return -1; }
void CEventBase::make_display_name(const std::string&, const std::string&, char*, char*) {}
}  // namespace korvel

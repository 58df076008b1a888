// The catalogue task: builds the catalogue's text once per event base, entry by entry, then
// serves it from memory in bursts by byte offset. Worker thread.
#include <malloc.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <vector>

#include <cjson/cJSON.h>

#include "catalogue/catalogue_text.h"
#include "client/event_base.h"
#include "core/json_ptr.h"
#include "core/packet.h"
#include "log/log.h"
#include "transfer/burst.h"

namespace korvel {

namespace {

// The catalogue's fixed brand value: the quotes are part of the string.
constexpr const char* CATALOGUE_IMAGE = "\"KORVEL\"";

// The name lists are only the walk's input; the next build scans again.
void release_lists(std::vector<std::string>* lists, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        std::vector<std::string>().swap(lists[i]);
    }
}

}  // namespace

void CEventBase::json_file_list_create(uint32_t* length) {
    *length = 0;
    // One consistent location for the whole build, even if the app reconfigures meanwhile.
    catalogueLocation = location_snapshot();
    if (catalogueJson != nullptr) {
        cJSON_Delete(catalogueJson);
    }
    catalogueJson = cJSON_CreateObject();
    cJSON* media = cJSON_CreateArray();
    if (catalogueJson == nullptr || media == nullptr) {
        cJSON_Delete(media);
        log_print(1, "jason arry create failed.");
        cJSON_Delete(catalogueJson);
        catalogueJson = nullptr;
        return;
    }
    cJSON_AddItemToObject(catalogueJson, "image", cJSON_CreateString(CATALOGUE_IMAGE));
    cJSON_AddItemToObject(catalogueJson, "rootdir",
                          cJSON_CreateString(catalogueLocation.resourceLocation));
    cJSON_AddItemToObject(catalogueJson, "media", media);
    // The envelope is printed with its media array empty; the entries are printed into
    // the text one at a time and dropped, so only the text stays.
    CatalogueWriter writer{catalogueText, nullptr};
    CatalogueSink out;
    out.writer = &writer;
    if (catalogue_text_begin(writer, catalogueJson) &&
        access(catalogueLocation.resourceLocation, F_OK) == 0) {
        // A scan that failed or was cut short still leaves a valid, shorter catalogue.
        json_look_from_dir(out);
    }
    release_lists(mediaFileLists.data(), mediaFileLists.size());
    release_lists(extraFileLists.data(), extraFileLists.size());
    cJSON_Delete(catalogueJson);
    catalogueJson = nullptr;
    // The lists and the entries were freed among memory that stays in use, so their pages
    // would stay resident beside the text for as long as the app pages through it.
    malloc_trim(0);
    if (!writer.failed) {
        catalogue_text_end(writer);
    }
    size_t len = catalogueText.size();
    if (writer.failed || len > UINT32_MAX) {
        log_print(1, "jason arry create failed.");
        std::string().swap(catalogueText);
        return;
    }
    *length = static_cast<uint32_t>(len);
}

void CEventBase::json_file_list_send(int fd, uint8_t marker, uint16_t type, uint32_t offset) {
    // Built once, with the type of the first request marked 1; later types are ignored.
    if (marker == MARKER_LAST && catalogueLen == 0) {
        catalogueType = type;
        json_file_list_create(&catalogueLen);
        log_print(1, "json file list size: %d, type %d\n", static_cast<int>(catalogueLen),
                  static_cast<int>(type));
        if (catalogueLen == 0) {
            send_status(fd, MSG_CATALOGUE, ACK_FAILED);
            return;
        }
    }
    if (quitRequested) {
        return;
    }
    // Nothing left to send: the app already holds every byte up to catalogueLen (or asked
    // to continue a catalogue that was never built). No reply, so the worker is free at
    // once; the app ends its transfer on the packet marked 1 or 3 it has already received.
    if (offset >= catalogueLen) {
        return;
    }
    send_burst(*this,
               make_plan(fd, MSG_CATALOGUE, reinterpret_cast<const uint8_t*>(catalogueText.data()),
                         offset, catalogueLen));
}

}  // namespace korvel

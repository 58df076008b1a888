// The catalogue task: builds and prints the catalogue once per event base, then serves it
// from memory in bursts by byte offset. Worker thread.
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <memory>

#include <cjson/cJSON.h>

#include "client/event_base.h"
#include "core/json_ptr.h"
#include "core/packet.h"
#include "log/log.h"
#include "transfer/burst.h"

namespace korvel {

namespace {

// The catalogue's fixed brand value: the quotes are part of the string.
constexpr const char* CATALOGUE_IMAGE = "\"KORVEL\"";

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
    if (access(catalogueLocation.resourceLocation, F_OK) == 0) {
        // A scan that failed or was cut short still leaves a valid, shorter catalogue.
        json_look_from_dir(media);
    }
    JsonText printed(cJSON_Print(catalogueJson));
    size_t len = printed ? strlen(printed.get()) : 0;
    if (len == 0 || len > UINT32_MAX) {
        log_print(1, "jason arry create failed.");
        cJSON_Delete(catalogueJson);
        catalogueJson = nullptr;
        return;
    }
    catalogueText.assign(printed.get(), len);
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

// The metadata request: the facts of one photo or video as a small JSON document, sent
// in one burst. Main thread; it fills the event base's own media record, which the
// catalogue (on the worker) never uses.
#include <strings.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include <cjson/cJSON.h>

#include "media/json_file.h"
#include "client/event_base.h"
#include "core/card_fs.h"
#include "core/json_ptr.h"
#include "core/scoped.h"
#include "core/text.h"
#include "log/log.h"
#include "transfer/burst.h"
#include "transfer/paths.h"
#include "transfer/transfer_internal.h"

namespace korvel {

int32_t CEventBase::process_data_file_metadata(int fd, CPacket& packet) {
    if (!take_request_name(packet, fileName)) {
        send_status(fd, MSG_METADATA, ACK_BAD_NAME);
        return -1;
    }
    std::string filename, absfiledir;
    if (!resolve_confined(*this, fileName, filename, absfiledir)) {
        send_status(fd, MSG_METADATA, ACK_NOT_FOUND);
        return -1;
    }
    char bare[1024];
    copy_truncated(bare, sizeof bare, filename.c_str());
    copy_truncated(downFileName, sizeof downFileName, (absfiledir + "/" + bare).c_str());
    // The facts are read from this descriptor only: a regular file on the card, reached
    // through no link and opened without waiting. Anything else is a missing file.
    ScopedFd file(card_open_regular(downFileName));
    if (!file.valid()) {
        send_status(fd, MSG_METADATA, ACK_NOT_FOUND);
        return -1;
    }
    // Base names over 127 or extensions over 7 characters do not split into a known type,
    // so the file is described with an empty "metadata" array.
    char base[128] = {};
    char ext[8] = {};
    if (sscanf(bare, "%127[^.].%7s", base, ext) < 1) {
        return -1;
    }
    JsonTree doc(cJSON_CreateObject());
    cJSON_AddItemToObject(doc.get(), "filename", cJSON_CreateString(fileName));
    cJSON* list = cJSON_CreateArray();
    cJSON_AddItemToObject(doc.get(), "metadata", list);
    bool video = strcasecmp(ext, "MP4") == 0 || strcasecmp(ext, "MOV") == 0;
    bool photo = strcasecmp(ext, "JPG") == 0;
    if (video || photo) {
        cJSON* record = cJSON_CreateObject();
        mediaRecord->set_names(fileName, downFileName);
        mediaRecord->gather_facts(photo, true, file.get());
        if (video) {
            mediaRecord->get_json_video_param(record, ext);
        } else {
            mediaRecord->get_json_photo_param(record, ext);
        }
        cJSON_AddItemToArray(list, record);
    }
    JsonText text(cJSON_Print(doc.get()));
    if (!text || quitRequested) {
        return 0;
    }
    send_burst(*this, make_plan(fd, MSG_METADATA, reinterpret_cast<const uint8_t*>(text.get()), 0,
                                static_cast<uint32_t>(strlen(text.get()))));
    return 0;
}

}  // namespace korvel

// The catalogue walk: one JSON object per listed photo or video, with its thumbnail and
// second stream nested, in slot order and then list order; each goes into the sink as soon
// as it is made. Worker thread.
#include <strings.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include <cjson/cJSON.h>

#include "catalogue/catalogue.h"
#include "catalogue/catalogue_text.h"
#include "media/json_file.h"
#include "client/event_base.h"
#include "core/config.h"
#include "log/log.h"

namespace korvel {

namespace {

// One slot's thumbnail and second-stream candidates, so that finding a file's companions
// costs the same however many the directory holds. The views point into extraFileLists,
// which stays unchanged for the whole walk. Names in one directory are unique, so a set
// answers exactly what a search of the list would.
using ExtraIndex = std::unordered_set<std::string_view>;

ExtraIndex index_extras(const std::vector<std::string>& extras) {
    ExtraIndex index;
    index.reserve(extras.size());
    for (const std::string& name : extras) {
        index.insert(name);
    }
    return index;
}

// Builds stem + suffix into key; true when that exact name (case included) is a candidate.
bool has_companion(const ExtraIndex& index, const char* stem, const char* suffix, char* key,
                   size_t cap) {
    if (index.empty()) {
        return false;
    }
    int n = snprintf(key, cap, "%s%s", stem, suffix);
    if (n < 0 || static_cast<size_t>(n) >= cap) {
        return false;
    }
    return index.count(std::string_view(key, static_cast<size_t>(n))) != 0;
}

enum class EntryKind { Skip, Photo, Raw, Video };

EntryKind entry_kind(const char* ext) {
    if (strcasecmp(ext, "JPG") == 0) {
        return EntryKind::Photo;
    }
    if (strcasecmp(ext, "DNG") == 0) {
        return EntryKind::Raw;
    }
    if (strcasecmp(ext, "MOV") == 0 || strcasecmp(ext, "MP4") == 0) {
        return EntryKind::Video;
    }
    return EntryKind::Skip;
}

struct WalkSlot {
    CEventBase& eb;
    CJSONFile& record;
    const std::string& dir;
    const ExtraIndex& extras;
};

// One object for one file of the slot's directory, with file facts only.
cJSON* describe(const WalkSlot& w, const std::string& file, bool isPhoto, bool videoKeys,
                const char* fileType) {
    char disp[TEXT_BUF];
    char full[TEXT_BUF];
    w.eb.make_display_name(file, w.dir, disp, full);
    w.record.set_names(disp, full);
    w.record.gather_facts(isPhoto, false);
    cJSON* object = cJSON_CreateObject();
    if (object == nullptr) {
        return nullptr;
    }
    if (videoKeys) {
        w.record.get_json_video_param(object, fileType);
    } else {
        w.record.get_json_photo_param(object, fileType);
    }
    return object;
}

// Printed entries are deleted at once, so the walk holds one entry at a time.
void emit(CatalogueSink& out, cJSON* entry) {
    if (out.writer != nullptr) {
        catalogue_text_add(*out.writer, entry);
        cJSON_Delete(entry);
    } else if (!cJSON_AddItemToArray(out.media, entry)) {
        cJSON_Delete(entry);
    }
}

void attach(cJSON* entry, const char* key, cJSON* child) {
    if (child != nullptr && !cJSON_AddItemToObject(entry, key, child)) {
        cJSON_Delete(child);
    }
}

// Makes the entry of one listed file, with its companions, and hands it to the sink.
void add_entry(const WalkSlot& w, CatalogueSink& out, const std::string& name) {
    char stem[NAME_BUF];
    char ext[NAME_BUF] = "";
    if (sscanf(name.c_str(), "%255[^.].%255s", stem, ext) < 1) {
        return;
    }
    EntryKind kind = entry_kind(ext);
    if (kind == EntryKind::Skip) {
        return;
    }
    bool video = kind == EntryKind::Video;
    cJSON* entry = describe(w, name, !video, video, ext);  // "fileType" as the name writes it
    if (entry == nullptr) {
        return;
    }
    char key[NAME_BUF + 8];
    // Lower case wins when both thumbnails exist; a raw photo never has one.
    if (kind != EntryKind::Raw && (has_companion(w.extras, stem, ".thm", key, sizeof key) ||
                                   has_companion(w.extras, stem, ".THM", key, sizeof key))) {
        attach(entry, "thumbnail", describe(w, key, !video, false, "thm"));
    }
    // Only the exact ".2nd" counts: a ".2ND" file is collected but never nested.
    if (video && has_companion(w.extras, stem, ".2nd", key, sizeof key)) {
        attach(entry, "second", describe(w, key, false, false, "2nd"));
    }
    emit(out, entry);
}

// The longest text of an entry and of a nested companion apart from their name and file
// type: ten members of the longer key set a line each at their depth, the braces and the
// separator, a 20-byte size and a 19-byte date.
constexpr size_t ENTRY_TEXT = 208 + 39;
constexpr size_t COMPANION_TEXT = 234 + 39;

// An upper bound of the text the walk adds, from the listed names alone, so the text is
// reserved once and never holds two copies while it grows. A companion nested in several
// entries (IMG.JPG and IMG.jpg beside one IMG.thm) is counted once; only that rare card
// grows past the reserve.
size_t estimate_text(const CEventBase& eb, int32_t slots) {
    char prefix[16] = "";
    if (eb.catalogueLocation.userDefLocation) {
        snprintf(prefix, sizeof prefix, "%d-", eb.catalogueLocation.resourceLocationId);
    }
    size_t bytes = 0;
    for (int32_t slot = 0; slot < slots; ++slot) {
        const std::string dir = prefix + eb.mediaDirNames[slot] + "-";
        const size_t dirBytes = json_string_bytes(dir.data(), dir.size());
        for (const std::string& name : eb.mediaFileLists[slot]) {
            bytes += ENTRY_TEXT + dirBytes + 2 * json_string_bytes(name.data(), name.size());
        }
        for (const std::string& name : eb.extraFileLists[slot]) {
            bytes += COMPANION_TEXT + dirBytes + json_string_bytes(name.data(), name.size());
        }
    }
    return bytes;
}

int32_t stop_on_quit() {
    log_print(1, "got quite message from client\n");
    return -1;
}

}  // namespace

void CEventBase::make_display_name(const std::string& file, const std::string& dir, char* dispName,
                                   char* fullPath) {
    const LocationSnapshot& loc = catalogueLocation;
    if (loc.userDefLocation) {
        snprintf(dispName, TEXT_BUF, "%d-%s-%s", loc.resourceLocationId, dir.c_str(), file.c_str());
    } else {
        snprintf(dispName, TEXT_BUF, "%s-%s", dir.c_str(), file.c_str());
    }
    int n =
        snprintf(fullPath, TEXT_BUF, "%s/%s/%s", loc.resourceLocation, dir.c_str(), file.c_str());
    if (n < 0 || n >= static_cast<int>(TEXT_BUF)) {
        fullPath[0] = '\0';  // a cut path could name another file, even one off the card
    }
}

int32_t CEventBase::json_look_by_filetype(CatalogueSink& out, int32_t filledSlots) {
    log_print(1, "debug: enter json_look_by_filetype\n");
    // A record of the walk's own: the main thread fills mediaRecord for metadata requests
    // while this runs.
    std::unique_ptr<CJSONFile> record(new CJSONFile());
    int32_t slots = filledSlots < 0 ? 0 : filledSlots;
    if (slots > static_cast<int32_t>(MAX_MEDIA_DIRS)) {
        slots = static_cast<int32_t>(MAX_MEDIA_DIRS);
    }
    if (out.writer != nullptr) {
        std::string& text = out.writer->text;
        text.reserve(text.size() + estimate_text(*this, slots));
    }
    for (int32_t slot = 0; slot < slots; ++slot) {
        const std::vector<std::string>& files = mediaFileLists[slot];
        if (files.empty()) {
            continue;
        }
        if (quitRequested) {
            return stop_on_quit();
        }
        const ExtraIndex extras = index_extras(extraFileLists[slot]);
        const WalkSlot w{*this, *record, mediaDirNames[slot], extras};
        for (const std::string& name : files) {
            add_entry(w, out, name);
            if (quitRequested) {
                return stop_on_quit();
            }
            if (out.writer != nullptr && out.writer->failed) {
                return -1;
            }
        }
    }
    return 0;
}

}  // namespace korvel

// Storage roots, the resolution of a catalogue name into a directory and a file, and the
// confinement check that keeps every request inside the memory card.
#include "transfer/paths.h"

#include <cstring>
#include <mutex>

#include "client/event_base.h"
#include "core/config.h"
#include "log/log.h"

namespace korvel {

namespace {

constexpr int32_t STORAGE_IDS = 6;  // ids 0..5; only 0 has a root

bool plain_name(const std::string& s) {
    return !s.empty() && s != "." && s != ".." && s.find('/') == std::string::npos;
}

// Every component after the card root is a plain name, so nothing climbs out of it.
bool under_card(const std::string& root) {
    std::string card = get_sd_root();
    if (root == card) {
        return true;
    }
    if (root.compare(0, card.size() + 1, card + "/") != 0) {
        return false;
    }
    size_t start = card.size() + 1;
    while (start <= root.size()) {
        size_t slash = root.find('/', start);
        size_t end = slash == std::string::npos ? root.size() : slash;
        if (!plain_name(root.substr(start, end - start))) {
            return false;
        }
        start = end + 1;
    }
    return true;
}

}  // namespace

std::string get_sd_root() {
    return active_sd_root();
}

std::string get_media_dir_name() {
    return MEDIA_DIR_MARKER;
}

std::string get_storage_root(int32_t id) {
    return id == 0 ? get_sd_root() : std::string();
}

int32_t get_storage_id(const std::string& path) {
    if (path.empty()) {
        return -1;
    }
    for (int32_t id = 0; id < STORAGE_IDS; ++id) {
        if (get_storage_root(id) == path) {
            return id;
        }
    }
    return -1;
}

bool is_confined(const char* root, const std::string& filename, const std::string& absfiledir) {
    std::string location = root != nullptr ? root : "";
    if (!under_card(location) || !plain_name(filename)) {
        return false;
    }
    std::string prefix = location + "/";
    if (absfiledir.compare(0, prefix.size(), prefix) != 0) {
        return false;  // also a name without a directory field: it never names a media file
    }
    return plain_name(absfiledir.substr(prefix.size()));
}

LocationSnapshot CEventBase::location_snapshot() {
    LocationSnapshot s;
    MutexLock guard(locationMutex);
    memcpy(s.resourceLocation, resourceLocation, sizeof s.resourceLocation);
    memcpy(s.locPostfix, locPostfix, sizeof s.locPostfix);
    s.userDefLocation = userDefLocation;
    s.resourceLocationId = resourceLocationId;
    return s;
}

int32_t CEventBase::get_abs_file_dir(const char* name, std::string& filename,
                                     std::string& absfiledir) {
    LocationSnapshot loc = location_snapshot();
    std::string rest = name;
    if (loc.userDefLocation == 1) {
        log_print(1, "debug: %s, %s", loc.locPostfix, name);
        size_t dash = rest.find('-');
        if (dash == std::string::npos) {
            return -1;
        }
        std::string id = std::to_string(loc.resourceLocationId);
        bool byPostfix = strncmp(name, loc.locPostfix, strlen(loc.locPostfix)) == 0;
        bool byId = strncmp(name, id.c_str(), id.size()) == 0;
        if (!byPostfix && !byId) {
            return -1;
        }
        rest = rest.substr(dash + 1);
    }
    size_t dash = rest.find('-');
    if (dash != std::string::npos) {
        filename = rest.substr(dash + 1);
        absfiledir = std::string(loc.resourceLocation) + "/" + rest.substr(0, dash);
    } else {
        // No directory field: the location itself, which the confinement check refuses.
        filename = rest;
        absfiledir = loc.resourceLocation;
    }
    log_print(1, "debug, %s, get filename :%s, absfiledir: %s\n", loc.resourceLocation,
              filename.c_str(), absfiledir.c_str());
    return 0;
}

}  // namespace korvel

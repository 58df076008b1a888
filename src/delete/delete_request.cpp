// The delete request, run on the requesting app's worker thread: photos and their
// thumbnails are unlinked at once; videos and their second streams are moved into the
// holding directory and left to the background deleter.
#include <errno.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include <cjson/cJSON.h>

#include "client/event_base.h"
#include "core/config.h"
#include "core/json_ptr.h"
#include "delete/deleter.h"
#include "log/log.h"
#include "transfer/paths.h"

namespace korvel {

namespace {

constexpr size_t BASE_MAX = 127;
constexpr size_t EXT_MAX = 7;
constexpr int MKDIR_ATTEMPTS = 11;  // the first try and ten retries

enum class MediaKind { Other, Photo, Video };

// Every path one name can touch, built before anything is touched.
struct DeleteTarget {
    char name[TEXT_BUF];  // bare file name
    char base[BASE_MAX + 1];
    char ext[EXT_MAX + 1];
    char file[TEXT_BUF];  // absfiledir/name
    char thmLower[TEXT_BUF];
    char thmUpper[TEXT_BUF];
    char second[TEXT_BUF];
};

// Where a directory really lies once symlinks are followed.
enum class DirPlace { Inside, Missing, Outside };

void reply(CEventBase& ev, int fd, uint16_t code) {
    ev.send_status(fd, MSG_DELETE, code);
}

// A path that does not fit is refused rather than cut: a cut path names another file.
bool fits(int written) {
    return written >= 0 && static_cast<uint32_t>(written) < TEXT_BUF;
}

bool join_path(char (&out)[TEXT_BUF], const char* dir, const char* name) {
    return fits(snprintf(out, sizeof out, "%s/%s", dir, name));
}

bool companion_path(char (&out)[TEXT_BUF], const char* dir, const char* base, const char* sfx) {
    return fits(snprintf(out, sizeof out, "%s/%s.%s", dir, base, sfx));
}

// Splits at the first '.'; false when the name is not one this request handles: it begins
// with '.', has no '.', or its base or extension is longer than its field.
bool split_name(DeleteTarget& t) {
    const char* dot = strchr(t.name, '.');
    if (dot == nullptr || dot == t.name) {
        return false;
    }
    size_t baseLen = static_cast<size_t>(dot - t.name);
    size_t extLen = strlen(dot + 1);
    if (baseLen > BASE_MAX || extLen > EXT_MAX) {
        return false;
    }
    memcpy(t.base, t.name, baseLen);
    t.base[baseLen] = '\0';
    memcpy(t.ext, dot + 1, extLen + 1);
    return true;
}

bool make_target(const std::string& filename, const std::string& absfiledir, DeleteTarget& t) {
    snprintf(t.name, sizeof t.name, "%s", filename.c_str());  // names are cut at 1023
    if (!split_name(t)) {
        return false;
    }
    const char* dir = absfiledir.c_str();
    return join_path(t.file, dir, t.name) && companion_path(t.thmLower, dir, t.base, "thm") &&
           companion_path(t.thmUpper, dir, t.base, "THM") &&
           companion_path(t.second, dir, t.base, "2nd");
}

MediaKind media_kind(const char* ext) {
    if (strcasecmp(ext, "JPG") == 0) {
        return MediaKind::Photo;
    }
    if (strcasecmp(ext, "MP4") == 0 || strcasecmp(ext, "MOV") == 0) {
        return MediaKind::Video;
    }
    return MediaKind::Other;
}

DirPlace dir_place(const char* cardReal, const char* dir) {
    char real[PATH_MAX];
    if (realpath(dir, real) == nullptr) {
        // A directory that does not exist reaches nothing; anything else is not trusted.
        return (errno == ENOENT || errno == ENOTDIR) ? DirPlace::Missing : DirPlace::Outside;
    }
    size_t n = strlen(cardReal);
    if (strncmp(real, cardReal, n) == 0 && (real[n] == '/' || real[n] == '\0')) {
        return DirPlace::Inside;
    }
    return DirPlace::Outside;
}

void unlink_if_exists(const char* path) {
    if (access(path, F_OK) == 0) {
        unlink(path);
    }
}

void queue_for_deleter(const char* path) {
    if (mdeletehanlder != nullptr) {
        mdeletehanlder->queue_path(path);
    }
}

// 0 when the holding directory exists or was made. Another app's worker may make it
// between our test and our mkdir; EEXIST then means it is there.
int32_t ensure_holding_dir(const char* holding) {
    if (access(holding, F_OK) == 0) {
        return 0;
    }
    for (int attempt = 1; attempt <= MKDIR_ATTEMPTS; ++attempt) {
        if (mkdir(holding, 0777) == 0 || errno == EEXIST) {
            return 0;
        }
        if (attempt < MKDIR_ATTEMPTS) {
            log_print(1, "mkdir tmp_delete failed: %s", strerror(errno));
            usleep(5);
        }
    }
    return -1;
}

void delete_photo(const DeleteTarget& t) {
    unlink_if_exists(t.file);
    unlink_if_exists(t.thmLower);
    unlink_if_exists(t.thmUpper);
}

// Without a holding directory the video is still deleted, only at once.
void delete_video_directly(const DeleteTarget& t) {
    unlink(t.file);
    unlink_if_exists(t.thmUpper);
    unlink(t.second);
    unlink_if_exists(t.thmLower);
}

void delete_video(CEventBase& ev, int fd, const char* location, const char* cardReal,
                  const DeleteTarget& t) {
    char holding[TEXT_BUF];
    char dest[TEXT_BUF];
    char dest2[TEXT_BUF];
    if (!join_path(holding, location, HOLDING_DIR) || !join_path(dest, holding, t.name) ||
        !companion_path(dest2, holding, t.base, "2nd")) {
        return;
    }
    // A holding directory that leads off the card is as unusable as one that cannot be made.
    if (ensure_holding_dir(holding) != 0 || dir_place(cardReal, holding) != DirPlace::Inside) {
        reply(ev, fd, ACK_BAD_LOCATION);
        delete_video_directly(t);
        return;
    }
    // Rename results are not examined: the deleter passes over paths that are not there.
    rename(t.file, dest);
    queue_for_deleter(dest);
    unlink_if_exists(t.thmUpper);
    rename(t.second, dest2);
    queue_for_deleter(dest2);
    unlink_if_exists(t.thmLower);
}

void delete_one_name(CEventBase& ev, int fd, const char* name, const char* cardReal) {
    LocationSnapshot loc = ev.location_snapshot();
    std::string filename;
    std::string absfiledir;
    if (cardReal == nullptr || ev.get_abs_file_dir(name, filename, absfiledir) != 0 ||
        !is_confined(loc.resourceLocation, filename, absfiledir) ||
        dir_place(cardReal, absfiledir.c_str()) == DirPlace::Outside) {
        reply(ev, fd, ACK_BAD_NAME);
        return;
    }
    DeleteTarget t;
    if (!make_target(filename, absfiledir, t)) {
        return;
    }
    switch (media_kind(t.ext)) {
        case MediaKind::Photo:
            delete_photo(t);
            break;
        case MediaKind::Video:
            delete_video(ev, fd, loc.resourceLocation, cardReal, t);
            break;
        case MediaKind::Other:
            break;
    }
}

int64_t elapsed_us(const struct timeval& start, const struct timeval& end) {
    return (static_cast<int64_t>(end.tv_sec) - start.tv_sec) * 1000000 +
           (static_cast<int64_t>(end.tv_usec) - start.tv_usec);
}

}  // namespace

void CEventBase::process_file_delete(int fd, char* text) {
    // The app hears back before anything is touched; the task owns and frees the text.
    send_status(fd, MSG_DELETE, ACK_DONE);
    json_file_delete(fd, text);
}

void CEventBase::json_file_delete(int fd, const char* text) {
    if (text == nullptr) {
        return;
    }
    JsonTree tree(cJSON_Parse(text));  // bytes after the first complete value are ignored
    cJSON* media = tree ? cJSON_GetObjectItem(tree.get(), "media") : nullptr;
    if (!cJSON_IsArray(media)) {
        return;
    }
    struct timeval start;
    gettimeofday(&start, nullptr);
    // Every directory a name leads to is checked against the card's real path, so a
    // symlink on the card cannot carry a rename or unlink off it.
    char cardReal[PATH_MAX];
    const bool haveCard = realpath(get_sd_root().c_str(), cardReal) != nullptr;
    cJSON* item = nullptr;
    cJSON_ArrayForEach(item, media) {
        if (!cJSON_IsString(item) || item->valuestring == nullptr) {
            continue;  // carries no name
        }
        delete_one_name(*this, fd, item->valuestring, haveCard ? cardReal : nullptr);
    }
    tree.reset();
    struct timeval end;
    gettimeofday(&end, nullptr);
    // Fixed trace text: 1114 is part of it, not this line's number; keep it as it is.
    log_print(1, "move: [%s:%d]cost time %dms\n", "json_file_delete", 1114,
              static_cast<int>(elapsed_us(start, end) / 1000));
}

}  // namespace korvel

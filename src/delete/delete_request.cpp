// The delete request, run on the requesting app's worker thread: photos and their
// thumbnails are unlinked at once; videos and their second streams are moved into the
// holding directory and left to the background deleter.
#include <errno.h>
#include <fcntl.h>
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
#include "core/card_fs.h"
#include "core/config.h"
#include "core/json_ptr.h"
#include "core/scoped.h"
#include "delete/deleter.h"
#include "log/log.h"
#include "transfer/paths.h"

namespace korvel {

namespace {

constexpr size_t BASE_MAX = 127;
constexpr size_t EXT_MAX = 7;
constexpr int MKDIR_ATTEMPTS = 11;  // the first try and ten retries

enum class MediaKind { Other, Photo, Video };

// Every name one request can touch, built before anything is touched. Files are reached
// through their directory's descriptor, opened beneath the card without following links.
struct DeleteTarget {
    char name[TEXT_BUF];  // bare file name
    char base[BASE_MAX + 1];
    char ext[EXT_MAX + 1];
    char thmLower[TEXT_BUF];
    char thmUpper[TEXT_BUF];
    char second[TEXT_BUF];
};

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

bool companion_name(char (&out)[TEXT_BUF], const char* base, const char* sfx) {
    return fits(snprintf(out, sizeof out, "%s.%s", base, sfx));
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

bool make_target(const std::string& filename, DeleteTarget& t) {
    snprintf(t.name, sizeof t.name, "%s", filename.c_str());  // names are cut at 1023
    return split_name(t) && companion_name(t.thmLower, t.base, "thm") &&
           companion_name(t.thmUpper, t.base, "THM") && companion_name(t.second, t.base, "2nd");
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

// Only regular files are unlinked or moved: a link, FIFO or directory of that name is
// passed over like a missing file. dirFd -1 (a missing directory) holds nothing.
void unlink_if_exists(int dirFd, const char* name) {
    if (is_regular_at(dirFd, name)) {
        unlinkat(dirFd, name, 0);
    }
}

void move_if_exists(int dirFd, int holdFd, const char* from, const char* to) {
    if (is_regular_at(dirFd, from)) {
        renameat(dirFd, from, holdFd, to);
    }
}

void queue_for_deleter(const char* path) {
    if (mdeletehanlder != nullptr) {
        mdeletehanlder->queue_path(path);
    }
}

// The holding directory beside the media directories, made when missing; -1 when it cannot
// be made or is not a plain directory on the card (a link there is not used). Another
// app's worker may make it between our test and our mkdir; EEXIST then means it is there.
int open_holding_dir(int locFd, int locErr) {
    const int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    int holdFd = locFd < 0 ? -1 : openat(locFd, HOLDING_DIR, flags);
    if (holdFd >= 0 || (locFd >= 0 && errno != ENOENT)) {
        return holdFd;
    }
    for (int attempt = 1; attempt <= MKDIR_ATTEMPTS; ++attempt) {
        int err = locFd < 0 ? locErr : mkdirat(locFd, HOLDING_DIR, 0777) == 0 ? 0 : errno;
        if (err == 0 || err == EEXIST) {
            return openat(locFd, HOLDING_DIR, flags);
        }
        if (attempt < MKDIR_ATTEMPTS) {
            log_print(1, "mkdir tmp_delete failed: %s", strerror(err));
            usleep(5);
        }
    }
    return -1;
}

void delete_photo(int dirFd, const DeleteTarget& t) {
    unlink_if_exists(dirFd, t.name);
    unlink_if_exists(dirFd, t.thmLower);
    unlink_if_exists(dirFd, t.thmUpper);
}

// Without a holding directory the video is still deleted, only at once.
void delete_video_directly(int dirFd, const DeleteTarget& t) {
    unlink_if_exists(dirFd, t.name);
    unlink_if_exists(dirFd, t.thmUpper);
    unlink_if_exists(dirFd, t.second);
    unlink_if_exists(dirFd, t.thmLower);
}

void delete_video(CEventBase& ev, int fd, const char* location, int dirFd, const DeleteTarget& t) {
    char holding[TEXT_BUF];
    char dest[TEXT_BUF];
    char dest2[TEXT_BUF];
    char second[TEXT_BUF];
    if (!join_path(holding, location, HOLDING_DIR) || !join_path(dest, holding, t.name) ||
        !companion_name(second, t.base, "2nd") || !join_path(dest2, holding, second)) {
        return;
    }
    ScopedFd locFd(card_open_dir(location));
    int locErr = errno;
    ScopedFd holdFd(open_holding_dir(locFd.get(), locErr));
    if (holdFd.get() < 0) {
        reply(ev, fd, ACK_BAD_LOCATION);
        delete_video_directly(dirFd, t);
        return;
    }
    // The deleter passes over queued paths that are not there.
    move_if_exists(dirFd, holdFd.get(), t.name, t.name);
    queue_for_deleter(dest);
    unlink_if_exists(dirFd, t.thmUpper);
    move_if_exists(dirFd, holdFd.get(), t.second, second);
    queue_for_deleter(dest2);
    unlink_if_exists(dirFd, t.thmLower);
}

void delete_one_name(CEventBase& ev, int fd, const char* name) {
    LocationSnapshot loc = ev.location_snapshot();
    std::string filename;
    std::string absfiledir;
    if (ev.get_abs_file_dir(name, filename, absfiledir) != 0 ||
        !is_confined(loc.resourceLocation, filename, absfiledir)) {
        reply(ev, fd, ACK_BAD_NAME);
        return;
    }
    // A media directory that is missing holds nothing to delete; one that cannot be opened
    // beneath the card (a link, or a path through one) is refused like a bad name.
    ScopedFd dir(card_open_dir(absfiledir.c_str()));
    if (dir.get() < 0 && errno != ENOENT) {
        reply(ev, fd, ACK_BAD_NAME);
        return;
    }
    DeleteTarget t;
    if (!make_target(filename, t)) {
        return;
    }
    switch (media_kind(t.ext)) {
        case MediaKind::Photo:
            delete_photo(dir.get(), t);
            break;
        case MediaKind::Video:
            delete_video(ev, fd, loc.resourceLocation, dir.get(), t);
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
    cJSON* item = nullptr;
    cJSON_ArrayForEach(item, media) {
        if (!cJSON_IsString(item) || item->valuestring == nullptr) {
            continue;  // carries no name
        }
        delete_one_name(*this, fd, item->valuestring);
    }
    tree.reset();
    struct timeval end;
    gettimeofday(&end, nullptr);
    // Fixed trace text: 1114 is part of it, not this line's number; keep it as it is.
    log_print(1, "move: [%s:%d]cost time %dms\n", "json_file_delete", 1114,
              static_cast<int>(elapsed_us(start, end) / 1000));
}

}  // namespace korvel

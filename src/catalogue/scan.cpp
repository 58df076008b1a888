// The catalogue scan: finds the media directories under the app's location and sorts their
// file names into per-directory lists by catalogue type. Worker thread; directories are read
// through descriptors opened beneath the card.
#include <dirent.h>
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>

#include "catalogue/catalogue.h"
#include "catalogue/catalogue_text.h"
#include "client/event_base.h"
#include "core/card_fs.h"
#include "core/config.h"
#include "log/log.h"
#include "transfer/paths.h"

namespace korvel {

namespace {

struct DirCloser {
    void operator()(DIR* d) const { closedir(d); }
};
using ScopedDir = std::unique_ptr<DIR, DirCloser>;

bool is_dot_entry(const char* name) {
    return strcmp(name, ".") == 0 || strcmp(name, "..") == 0;
}

bool ext_is_any(const char* ext, const char* const* wanted, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        if (strcasecmp(ext, wanted[i]) == 0) {
            return true;
        }
    }
    return false;
}

// Extensions that make a file a catalogue entry, by type; compared in any case.
bool is_entry_ext(uint16_t type, const char* ext) {
    static const char* const kAll[] = {"JPG", "DNG", "MOV", "MP4"};
    static const char* const kJpg[] = {"JPG"};
    static const char* const kDng[] = {"DNG"};
    static const char* const kMp4[] = {"MP4"};
    static const char* const kVideo[] = {"MP4", "MOV"};
    switch (type) {
        case CATALOGUE_ALL:
            return ext_is_any(ext, kAll, 4);
        case CATALOGUE_JPG:
        case CATALOGUE_JPG_THM:
            return ext_is_any(ext, kJpg, 1);
        case CATALOGUE_DNG:
            return ext_is_any(ext, kDng, 1);
        case CATALOGUE_MP4:
        case CATALOGUE_MP4_EXTRA:
            return ext_is_any(ext, kMp4, 1);
        case CATALOGUE_VIDEO:
            return ext_is_any(ext, kVideo, 2);
        default:
            return false;
    }
}

// Thumbnail and second-stream candidates. Types 3 and 6 deliberately differ in case: the
// camera writes "thm" beside photos and "THM" beside videos.
bool is_extra_ext(uint16_t type, const char* ext) {
    switch (type) {
        case CATALOGUE_ALL:
            return strcasecmp(ext, "thm") == 0 || strcasecmp(ext, "2nd") == 0;
        case CATALOGUE_JPG_THM:
            return strcmp(ext, "thm") == 0;
        case CATALOGUE_MP4_EXTRA:
            return strcmp(ext, "THM") == 0 || strcasecmp(ext, "2nd") == 0;
        default:
            return false;
    }
}

}  // namespace

int32_t recent_limit_seconds(uint16_t type) {
    switch (type) {
        case CATALOGUE_LAST_5MIN:
            return 300;
        case CATALOGUE_LAST_10MIN:
            return 600;
        case CATALOGUE_LAST_30MIN:
            return 1800;
        case CATALOGUE_LAST_60MIN:
            return 3600;
        default:
            return -1;
    }
}

bool CEventBase::is_recent(int32_t limit) {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    struct stat st;
    if (lstat(ctimePath, &st) != 0) {
        return false;
    }
    // Signed, so a status change in the future (clock set back) still counts as recent.
    int64_t age = static_cast<int64_t>(now.tv_sec) - static_cast<int64_t>(st.st_ctime);
    return age <= limit;
}

void CEventBase::json_look_by_filetime(char* ext, const char* name, const uint16_t& type,
                                       int32_t slot) {
    static const char* const kRecent[] = {"JPG", "MP4", "MOV"};
    int32_t limit = recent_limit_seconds(type);
    // The extension is tested first: it is free, while the age costs an lstat.
    if (limit < 0 || !ext_is_any(ext, kRecent, 3) || !is_recent(limit)) {
        return;
    }
    mediaFileLists[slot].emplace_back(name);
}

void CEventBase::json_media_type_classify(char* ext, const char* name, int32_t slot) {
    const char* sig =
        "void korvel::CEventBase::json_media_type_classify(char*, const char*, int32_t)";
    if (slot < 0 || slot >= static_cast<int32_t>(MAX_MEDIA_DIRS)) {
        return;
    }
    uint16_t type = catalogueType;
    if (type == CATALOGUE_NONE) {
        log_warn("[%s],extern msg type error!\n", sig);
        return;
    }
    if (type > CATALOGUE_LAST_60MIN) {
        log_warn("[%s],unknown extern msg type!\n", sig);
        return;
    }
    if (type >= CATALOGUE_LAST_5MIN) {
        json_look_by_filetime(ext, name, type, slot);
    } else if (is_entry_ext(type, ext)) {
        mediaFileLists[slot].emplace_back(name);
    } else if (is_extra_ext(type, ext)) {
        extraFileLists[slot].emplace_back(name);
    }
}

namespace {

enum class DirScan { Quit, NoExtension, HadExtension };

// Only regular files are listed: a link could describe a file off the card, and a FIFO
// would block whoever opens it. The entry's own type is free on most file systems.
bool is_regular_entry(DIR* dir, const struct dirent* e) {
    if (e->d_type != DT_UNKNOWN) {
        return e->d_type == DT_REG;
    }
    return is_regular_at(dirfd(dir), e->d_name);
}

// Opens a directory stream on a descriptor; -1 descriptors and failures give none.
ScopedDir dir_stream(int fd) {
    DIR* d = fd >= 0 ? fdopendir(fd) : nullptr;
    if (d == nullptr && fd >= 0) {
        close(fd);
    }
    return ScopedDir(d);
}

// Classifies the files of one media directory into `slot`. A directory counts (takes the
// slot) when at least one of its regular files has an extension, selected or not.
DirScan scan_media_dir(CEventBase& eb, int dirFd, const char* dirPath, int32_t slot) {
    ScopedDir dir = dir_stream(dirFd);
    if (!dir) {
        return DirScan::NoExtension;
    }
    DirScan result = DirScan::NoExtension;
    while (struct dirent* e = readdir(dir.get())) {
        if (eb.quitRequested) {
            log_print(1, "quit request from client.");
            return DirScan::Quit;
        }
        int n = snprintf(eb.ctimePath, sizeof eb.ctimePath, "%s/%s", dirPath, e->d_name);
        if (n < 0 || static_cast<size_t>(n) >= sizeof eb.ctimePath) {
            continue;  // a cut path would name some other file
        }
        if (is_dot_entry(e->d_name) || !is_regular_entry(dir.get(), e)) {
            continue;
        }
        char ext[NAME_BUF];
        if (sscanf(e->d_name, "%*[^.].%255s", ext) != 1) {
            continue;  // no dot, a leading dot, or nothing after it
        }
        result = DirScan::HadExtension;
        eb.json_media_type_classify(ext, e->d_name, slot);
    }
    return result;
}

}  // namespace

int32_t CEventBase::json_look_from_dir(cJSON* media) {
    CatalogueSink out;
    out.media = media;
    return json_look_from_dir(out);
}

int32_t CEventBase::json_look_from_dir(CatalogueSink& out) {
    const char* root = catalogueLocation.resourceLocation;
    // The location and every media directory are opened beneath the card without following
    // a link, so the scan never walks or describes anything off the card.
    int rootFd = card_open_dir(root);
    if (rootFd < 0) {
        return -1;
    }
    for (uint32_t i = 0; i < MAX_MEDIA_DIRS; ++i) {
        mediaFileLists[i].clear();
        extraFileLists[i].clear();
    }
    ScopedDir dir = dir_stream(rootFd);
    if (!dir) {
        log_warn("[%s],opendir error %s!\n",
                 "int32_t korvel::CEventBase::json_look_from_dir(cJSON*)", root);
        return -1;
    }
    const std::string marker = get_media_dir_name();
    int32_t slot = 0;
    while (slot < static_cast<int32_t>(MAX_MEDIA_DIRS)) {
        struct dirent* e = readdir(dir.get());
        if (e == nullptr) {
            break;
        }
        if (quitRequested) {
            log_print(1, "quit request from client.");
            return -1;
        }
        if (is_dot_entry(e->d_name) || strstr(e->d_name, marker.c_str()) == nullptr) {
            continue;
        }
        char path[TEXT_BUF];
        int n = snprintf(path, sizeof path, "%s/%s", root, e->d_name);
        if (n < 0 || static_cast<size_t>(n) >= sizeof path) {
            continue;  // never scan a cut path: it could name a directory elsewhere
        }
        // A link to a directory is not followed, so the scan stays on the card.
        int mediaFd =
            openat(dirfd(dir.get()), e->d_name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (mediaFd < 0) {
            continue;
        }
        DirScan r = scan_media_dir(*this, mediaFd, path, slot);
        if (r == DirScan::Quit) {
            return -1;
        }
        if (r == DirScan::HadExtension) {
            mediaDirNames[slot] = e->d_name;
            ++slot;
        }
    }
    dir.reset();
    return json_look_by_filetype(out, slot);
}

}  // namespace korvel

// The media record: one file's facts as fixed text fields and the two JSON key sets built
// from them. Filled on the worker by the catalogue walk and on the main thread by the
// metadata request, each with a record of its own.
#include "media/json_file.h"

#include <strings.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <ctime>

#include <cjson/cJSON.h>

#include "core/text.h"
#include "log/log.h"
#include "media/exif.h"
#include "media/mp4.h"

namespace korvel {

namespace {

// Longest extension that can name a media kind; anything longer matches nothing.
constexpr size_t MAX_MATCHED_EXT = 15;

enum class DispExt { None, Other, Matched };

// The text after the first dot of the display name, up to white space. The display name
// starts with the directory name, which has no dot, so this is the file's own extension.
DispExt display_extension(const char* dispName, const char* const* wanted, size_t count) {
    char ext[1024];
    if (sscanf(dispName, "%*[^.].%1023s", ext) != 1) {
        return DispExt::None;
    }
    if (strlen(ext) > MAX_MATCHED_EXT) {
        return DispExt::Other;
    }
    for (size_t i = 0; i < count; ++i) {
        if (strcasecmp(ext, wanted[i]) == 0) {
            return DispExt::Matched;
        }
    }
    return DispExt::Other;
}

// Adds one string member. A large card's catalogue holds tens of thousands of these
// objects, most of their values empty, and allocation dominates building it: the keys are
// literals and every empty value shares one static text, so neither is copied. The tree
// is only printed and deleted, never edited, and prints exactly as copied strings would.
void add_text(cJSON* object, const char* key, const char* value) {
    cJSON* item = value[0] != '\0' ? cJSON_CreateString(value) : cJSON_CreateStringReference("");
    if (item != nullptr && !cJSON_AddItemToObjectCS(object, key, item)) {
        cJSON_Delete(item);
    }
}

}  // namespace

CJSONFile::CJSONFile()
    : dispName{},
      fullPath{},
      fileSize{},
      createDate{},
      maker{},
      model{},
      resUnit{},
      colourSpace{},
      duration{},
      avgBitRate{},
      frameRate{},
      codeFormat{},
      width{},
      height{} {}

void CJSONFile::set_names(const char* disp, const char* full) {
    copy_truncated(dispName, sizeof dispName, disp);
    copy_truncated(fullPath, sizeof fullPath, full);
}

// Every fact field is emptied first so that nothing of the previous file shows up in the
// object of this one, whatever the readers below manage to fill.
void CJSONFile::clear_facts() {
    char* const fields[] = {fileSize, createDate, maker,     model,      resUnit, colourSpace,
                            duration, avgBitRate, frameRate, codeFormat, width,   height};
    for (char* f : fields) {
        f[0] = '\0';
    }
}

int CJSONFile::gather_facts(bool isPhoto, bool withMedia, int fd) {
    clear_facts();
    read_file_facts(fd);
    if (!withMedia) {
        return 0;
    }
    return isPhoto ? read_photo_facts(fd) : read_video_facts(fd);
}

// With a descriptor, the facts are those of the file it holds, whatever the path names now.
void CJSONFile::read_file_facts(int fd) {
    struct stat st;
    if ((fd >= 0 ? fstat(fd, &st) : lstat(fullPath, &st)) != 0) {
        log_print(3, "%s lstat error\n", fullPath);
        return;
    }
    snprintf(fileSize, sizeof fileSize, "%ld", static_cast<long>(st.st_size));
    struct tm local;
    if (localtime_r(&st.st_ctime, &local) == nullptr ||
        strftime(createDate, sizeof createDate, "%Y:%m:%d %H:%M:%S", &local) == 0) {
        createDate[0] = '\0';  // a date that does not fit is left out rather than cut
    }
}

int CJSONFile::read_photo_facts(int fd) {
    static const char* const kPhoto[] = {"JPG"};
    DispExt ext = display_extension(dispName, kPhoto, 1);
    if (ext == DispExt::None) {
        // Fixed warning text: the signature names get_json_photo_param on purpose, and the
        // line has no line end; keep both.
        log_warn("[WARN],%ssscanf JPG file error", "int korvel::CJSONFile::get_json_photo_param()");
        return -1;
    }
    if (ext == DispExt::Matched) {
        // A photo without readable EXIF simply keeps these fields empty.
        if (fd >= 0) {
            exif_read_photo_info_fd(maker, model, width, height, resUnit, colourSpace, fd);
        } else {
            exif_read_photo_info(maker, model, width, height, resUnit, colourSpace, fullPath);
        }
    }
    return 0;
}

int CJSONFile::read_video_facts(int fd) {
    static const char* const kVideo[] = {"MP4", "MOV", "2nd"};
    DispExt ext = display_extension(dispName, kVideo, 3);
    if (ext == DispExt::None) {
        // Fixed warning text, as in read_photo_facts.
        log_warn("[WARN],%ssscanf mp4/mov file error",
                 "int korvel::CJSONFile::get_json_video_param()");
        return -1;
    }
    if (ext == DispExt::Matched) {
        if (fd >= 0) {
            mp4_read_video_info_fd(avgBitRate, frameRate, codeFormat, duration, width, height, fd);
        } else {
            mp4_read_video_info(avgBitRate, frameRate, codeFormat, duration, width, height,
                                fullPath);
        }
    }
    return 0;
}

void CJSONFile::get_json_photo_param(cJSON* object, const char* fileType) {
    add_text(object, "fileType", fileType);
    add_text(object, "fileName", dispName);
    add_text(object, "fileSize", fileSize);
    add_text(object, "createDate", createDate);
    add_text(object, "imgmaker", maker);
    add_text(object, "imgmodle", model);
    add_text(object, "imgWidth", width);
    add_text(object, "imgHeight", height);
    add_text(object, "imgResUnit", resUnit);
    add_text(object, "imgColorSpace", colourSpace);
}

void CJSONFile::get_json_video_param(cJSON* object, const char* fileType) {
    add_text(object, "fileType", fileType);
    add_text(object, "fileName", dispName);
    add_text(object, "fileSize", fileSize);
    add_text(object, "createDate", createDate);
    add_text(object, "avgBitRate", avgBitRate);
    add_text(object, "frameRate", frameRate);
    add_text(object, "duration", duration);
    add_text(object, "imgWidth", width);
    add_text(object, "imgHeight", height);
    add_text(object, "codeFormat", codeFormat);
}

}  // namespace korvel

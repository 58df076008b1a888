// The record of one media file's facts, as fixed text fields, and its two JSON forms.
#pragma once

#include <cstdint>

struct cJSON;

namespace korvel {

class CJSONFile {
public:
    CJSONFile();

    void set_names(const char* dispName, const char* fullPath);
    // fd, when given, is the file already opened for fullPath: it is read instead of the path.
    int gather_facts(bool isPhoto, bool withMedia, int fd = -1);
    void read_file_facts(int fd = -1);
    int read_photo_facts(int fd = -1);
    int read_video_facts(int fd = -1);
    void get_json_photo_param(cJSON* object, const char* fileType);
    void get_json_video_param(cJSON* object, const char* fileType);

    char dispName[1024];
    char fullPath[1024];
    char fileSize[16];
    char createDate[20];
    char maker[32];
    char model[32];
    char resUnit[16];
    char colourSpace[16];
    char duration[16];
    char avgBitRate[16];
    char frameRate[16];
    char codeFormat[16];
    char width[16];
    char height[16];

private:
    void clear_facts();
};

}  // namespace korvel

// Video track facts of MP4/MOV files as the six 16-byte texts of the media record. Runs on
// the main thread for a metadata request; every call owns its own file handle.
#include "media/mp4.h"

#include <strings.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "media/mp4_reader.h"

namespace korvel {

namespace {

// Size of each destination text in the media record; texts are cut to fit.
constexpr size_t MP4_FIELD_SIZE = 16;

struct CodeName {
    uint8_t code;
    const char* name;
};

const CodeName OBJECT_TYPES[] = {
    {0x60, "MPEG-2 Simple"}, {0x61, "MPEG-2 Main"},  {0x62, "MPEG-2 SNR"}, {0x63, "MPEG-2 Spatial"},
    {0x64, "MPEG-2 High"},   {0x65, "MPEG-2 4:2:2"}, {0x6A, "MPEG-1"},     {0x6C, "JPEG"},
    {0xF0, "YUV12"},         {0xF2, "H.263"},        {0xF3, "H.261"},
};

// Searched in order for the first equal code; the names are shown as they stand.
const CodeName VISUAL_PROFILES[] = {
    {0x01, "MPEG-4 Simple @ L1"},
    {0x02, "MPEG-4 Simple @ L2"},
    {0x03, "MPEG-4 Simple @ L3"},
    {0x08, "MPEG-4 Simple @ L0"},
    {0x11, "MPEG-4 Simple Scalable @ L1"},
    {0x12, "MPEG-4 Simple Scalable @ L2"},
    {0x21, "MPEG-4 Core @ L1"},
    {0x22, "MPEG-4 Core @ L2"},
    {0x32, "MPEG-4 Main @ L2"},
    {0x33, "MPEG-4 Main @ L3"},
    {0x34, "MPEG-4 Main @ L4"},
    {0x42, "MPEG-4 N-bit @ L2"},
    {0x51, "MPEG-4  Scalable Texture @ L1"},
    {0x61, "MPEG-4 Simple Face Anim @ L1"},
    {0x62, "MPEG-4  Simple Face Anim @ L2"},
    {0x63, "MPEG-4  Simple FBA @ L1"},
    {0x64, "MPEG-4 Simple FBA @ L2"},
    {0x71, "MPEG-4 Basic Anim Text @ L1"},
    {0x72, "MPEG-4 Basic Anim Text @ L2"},
    {0x81, "MPEG-4 Hybrid @ L1"},
    {0x82, "MPEG-4 Hybrid @ L2"},
    {0x91, "MPEG-4 Adv RT Simple @ L1"},
    {0x92, "MPEG-4 Adv RT Simple @ L2"},
    {0x93, "MPEG-4 Adv RT Simple @ L3"},
    {0x94, "MPEG-4 Adv RT Simple @ L4"},
    {0xA1, "MPEG-4 Core Scalable @ L1"},
    {0xA2, "MPEG-4 Core Scalable @ L2"},
    {0xA3, "MPEG-4 Core Scalable @ L3"},
    {0xB1, "MPEG-4 Adv Coding Efficieny @ L1"},
    {0xB2, "MPEG-4 Adv Coding Efficieny @ L2"},
    {0xB3, "MPEG-4 Adv Coding Efficieny @ L3"},
    {0xB4, "MPEG-4 Adv Coding Efficieny @ L4"},
    {0xC1, "MPEG-4 Adv Core Profile @ L1"},
    {0xC2, "MPEG-4 Adv Core Profile @ L2"},
    {0xD1, "MPEG-4 Adv Scalable Texture @ L1"},
    {0xD2, "MPEG-4 Adv Scalable Texture @ L2"},
    {0xD3, "MPEG-4 Adv Scalable Texture @ L3"},
    {0xE1, "MPEG-4 Simple Studio @ L1"},
    {0xE2, "MPEG-4 Simple Studio @ L2"},
    {0xE3, "MPEG-4 Simple Studio @ L3"},
    {0xE4, "MPEG-4 Simple Studio @ L4"},
    {0xE5, "MPEG-4 Core Studio @ L1"},
    {0xE6, "MPEG-4 Core Studio @ L2"},
    {0xE7, "MPEG-4 Core Studio @ L3"},
    {0xE8, "MPEG-4 Core Studio @ L4"},
    {0xF0, "MPEG-4 Adv Simple@L0"},
    {0xF1, "MPEG-4 Adv Simple@L1"},
    {0xF2, "MPEG-4 Adv Simple@L2"},
    {0xF3, "MPEG-4 Adv Simple@L3"},
    {0xF4, "MPEG-4 Adv Simple@L4"},
    {0xF5, "MPEG-4 Adv Simple@L5"},
    {0xF7, "MPEG-4 Adv Simple@L3b"},
    {0xF8, "MPEG-4 FGS @ L0"},
    {0xF9, "MPEG-4 FGS @ L1"},
    {0xFA, "MPEG-4 FGS @ L2"},
    {0xFB, "MPEG-4 FGS @ L3"},
    {0xFC, "MPEG-4 FGS @ L4"},
    {0xFD, "MPEG-4 FGS @ L5"},
};

template <size_t N>
const char* lookup(const CodeName (&table)[N], uint8_t code, const char* fallback) {
    for (const CodeName& row : table) {
        if (row.code == code) {
            return row.name;
        }
    }
    return fallback;
}

__attribute__((format(printf, 2, 3))) void set_field(char* field, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(field, MP4_FIELD_SIZE, fmt, ap);
    va_end(ap);
}

bool same(const char* a, const char* b) {
    return a != nullptr && strcasecmp(a, b) == 0;
}

// MPEG-4 Visual is named by its profile-level, every other object type by the type.
const char* esds_codec(const Mp4File* file, uint32_t id) {
    uint8_t objectType = mp4_esds_object_type(file, id);
    if (objectType == 0x20) {
        return lookup(VISUAL_PROFILES, mp4_video_profile_level(file, id), "MPEG-4 Unknown Profile");
    }
    return lookup(OBJECT_TYPES, objectType, "Unknown");
}

const char* codec_text(const Mp4File* file, uint32_t id) {
    const char* name = mp4_media_data_name(file, id);
    if (name == nullptr) {
        return "Unknown - no media data name";
    }
    char original[8] = {0};
    bool hasOriginal = mp4_media_original_format(file, id, original, sizeof original);
    bool encrypted = same(name, "encv");
    if (encrypted && !hasOriginal) {
        return "Unknown - no media data name";
    }
    // An encrypted track whose original format is one of the named codecs is that codec.
    if (same(name, "avc1") || same(original, "264b") || (encrypted && same(original, "avc1"))) {
        uint8_t profile = 0, level = 0;
        return mp4_h264_profile_level(file, id, &profile, &level) ? "H264"
                                                                  : "H.264 - profile/level error";
    }
    if (same(name, "s263") || (encrypted && same(original, "s263"))) {
        return "H.263";
    }
    if (same(name, "mp4v") || encrypted) {
        return esds_codec(file, id);
    }
    return name;
}

void write_facts(const Mp4File* file, uint32_t id, char* avgBitRate, char* frameRate,
                 char* codeFormat, char* duration, char* width, char* height) {
    const char* codec = codec_text(file, id);
    uint64_t ms = mp4_convert_from_track_duration(file, id, mp4_track_duration(file, id), 1000);
    uint32_t bitRate = mp4_track_bit_rate(file, id);
    set_field(avgBitRate, "%u", (bitRate + 500u) / 1000u);
    set_field(frameRate, "%lf", mp4_video_frame_rate(file, id));
    set_field(codeFormat, "%s", codec);
    set_field(duration, "%lf", double(ms) / 1000.0);
    set_field(width, "%u", unsigned(mp4_video_width(file, id)));
    set_field(height, "%u", unsigned(mp4_video_height(file, id)));
}

}  // namespace

namespace {

bool fields_given(char* avgBitRate, char* frameRate, char* codeFormat, char* duration, char* width,
                  char* height) {
    if (!avgBitRate || !frameRate || !codeFormat || !duration || !width || !height) {
        fwrite("bad mp4 demuxer parameter!\n", 1, 27, stderr);
        return false;
    }
    return true;
}

int report(const Mp4File* file, char* avgBitRate, char* frameRate, char* codeFormat, char* duration,
           char* width, char* height) {
    if (file == nullptr) {
        fwrite("MP4Read error!\n", 1, 15, stderr);
        return -1;
    }
    // Every video track overwrites the fields, so the last one is reported.
    uint32_t count = mp4_track_count(file);
    for (uint32_t i = 0; i < count; ++i) {
        uint32_t id = mp4_track_id(file, i);
        const char* type = mp4_track_type(file, id);
        if (type == nullptr || std::strcmp(type, "vide") != 0) {
            continue;
        }
        write_facts(file, id, avgBitRate, frameRate, codeFormat, duration, width, height);
    }
    return 0;
}

}  // namespace

int mp4_read_video_info(char* avgBitRate, char* frameRate, char* codeFormat, char* duration,
                        char* width, char* height, const char* path) {
    if (path == nullptr) {
        fwrite("mp4FileName is wrong!\n", 1, 22, stderr);
        return -1;
    }
    if (!fields_given(avgBitRate, frameRate, codeFormat, duration, width, height)) {
        return -1;
    }
    Mp4Handle file(mp4_open(path));
    return report(file.get(), avgBitRate, frameRate, codeFormat, duration, width, height);
}

int mp4_read_video_info_fd(char* avgBitRate, char* frameRate, char* codeFormat, char* duration,
                           char* width, char* height, int fd) {
    if (!fields_given(avgBitRate, frameRate, codeFormat, duration, width, height)) {
        return -1;
    }
    Mp4Handle file(mp4_open_fd(fd));
    return report(file.get(), avgBitRate, frameRate, codeFormat, duration, width, height);
}

}  // namespace korvel

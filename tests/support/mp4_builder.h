// Box-by-box MP4 writer for tests: each helper returns the bytes of one box (or field), so
// a test states exactly the file it needs, malformed ones included.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace korvel {
namespace testsupport {

std::string be32(uint32_t v);
std::string be64(uint64_t v);

std::string box(const char* type, const std::string& payload);
// Version byte and zero flags in front of the payload.
std::string full_box(const char* type, uint8_t version, const std::string& payload);

std::string ftyp(const char* brand = "isom");
std::string mvhd();

std::string visual_entry(const char* type, uint16_t width, uint16_t height,
                         const std::string& children = "");
std::string sound_entry(const char* type, uint16_t channels, uint16_t sampleSize,
                        const std::string& children = "");
std::string avcc(uint8_t profile, uint8_t level, bool withPps = true);
// ES descriptor with a decoder config; the decoder-specific info is left out when empty.
std::string esds(uint8_t objectType, uint32_t avgBitrate, const std::string& dsi = "");

std::string stsz(uint32_t constSize, uint32_t count, const std::vector<uint32_t>& sizes = {});

// One track with sensible defaults: a 10 s video track with one 1000-byte sample. Fields in
// the order tests most often give them.
struct TrackPlan {
    uint32_t timescale = 1000;
    uint64_t duration = 10000;  // a version 1 mdhd when it needs more than 32 bits
    std::string sizes = "";     // stsz or stz2 box; empty means one sample of 1000 bytes
    std::string entries = "";   // sample entries; empty means avc1 640x480 with avcC
    const char* handler = "vide";
    uint32_t id = 1;
    uint32_t tkhdWidth = 0, tkhdHeight = 0;  // 16.16
    bool withTkhd = true;
    bool withStco = true;
};
std::string trak(const TrackPlan& plan);
// moov holding mvhd followed by `children`.
std::string moov(const std::string& children);
// ftyp + moov + a 64-byte mdat.
std::string mp4_file(const std::string& moovBox);

}  // namespace testsupport
}  // namespace korvel

#include "support/mp4_builder.h"

namespace korvel {
namespace testsupport {

static std::string be16(uint16_t v) {
    return {char(v >> 8), char(v)};
}
std::string be32(uint32_t v) {
    return be16(uint16_t(v >> 16)) + be16(uint16_t(v));
}
std::string be64(uint64_t v) {
    return be32(uint32_t(v >> 32)) + be32(uint32_t(v));
}

std::string box(const char* type, const std::string& payload) {
    return be32(uint32_t(payload.size() + 8)) + std::string(type, 4) + payload;
}

std::string full_box(const char* type, uint8_t version, const std::string& payload) {
    return box(type, std::string(1, char(version)) + std::string(3, '\0') + payload);
}

std::string ftyp(const char* brand) {
    return box("ftyp", std::string(brand, 4) + be32(0) + std::string(brand, 4));
}

std::string mvhd() {
    return full_box("mvhd", 0, std::string(96, '\0'));
}

std::string visual_entry(const char* type, uint16_t width, uint16_t height,
                         const std::string& children) {
    // 6 reserved + data reference, 16 bytes of codec fields, then the size at offset 24.
    std::string fixed = std::string(6, '\0') + be16(1) + std::string(16, '\0') + be16(width) +
                        be16(height) + be32(0x00480000) + be32(0x00480000) + be32(0) + be16(1) +
                        std::string(32, '\0') + be16(24) + be16(0xFFFF);
    return box(type, fixed + children);
}

std::string sound_entry(const char* type, uint16_t channels, uint16_t sampleSize,
                        const std::string& children) {
    std::string fixed = std::string(6, '\0') + be16(1) + std::string(8, '\0') + be16(channels) +
                        be16(sampleSize) + be32(0) + be32(44100u << 16);
    return box(type, fixed + children);
}

std::string avcc(uint8_t profile, uint8_t level, bool withPps) {
    std::string p = std::string{1, char(profile), 0, char(level), char(0xFF), char(0xE1), 0, 4} +
                    std::string("\x67\x64\x00\x33", 4);  // one 4-byte SPS
    if (withPps) {
        p += std::string(1, '\x01') + be16(2) + "\x68\xEE";
    }
    return box("avcC", p);
}

static std::string descriptor(uint8_t tag, const std::string& body) {
    return std::string{char(tag), char(body.size())} + body;
}

std::string esds(uint8_t objectType, uint32_t avgBitrate, const std::string& dsi) {
    std::string config =
        std::string{char(objectType), 0x11, 0, 0, 0} + be32(avgBitrate * 2) + be32(avgBitrate);
    if (!dsi.empty()) {
        config += descriptor(0x05, dsi);
    }
    std::string es = be16(1) + std::string(1, '\0') + descriptor(0x04, config) +
                     descriptor(0x06, std::string(1, '\x02'));
    return full_box("esds", 0, descriptor(0x03, es));
}

std::string stsz(uint32_t constSize, uint32_t count, const std::vector<uint32_t>& sizes) {
    std::string p = be32(constSize) + be32(count);
    for (uint32_t s : sizes) {
        p += be32(s);
    }
    return full_box("stsz", 0, p);
}

std::string trak(const TrackPlan& s) {
    std::string entries =
        s.entries.empty() ? visual_entry("avc1", 640, 480, avcc(100, 40)) : s.entries;
    std::string sizes = s.sizes.empty() ? stsz(1000, 1) : s.sizes;
    // stsd, one stts run, one stsc run, the sizes and a one-chunk stco.
    std::string stbl = full_box("stsd", 0, be32(1) + entries) +
                       full_box("stts", 0, be32(1) + be32(1) + be32(uint32_t(s.duration))) +
                       full_box("stsc", 0, be32(1) + be32(1) + be32(1) + be32(1)) + sizes;
    if (s.withStco) {
        stbl += full_box("stco", 0, be32(1) + be32(48));
    }
    std::string minf = box("minf", full_box("vmhd", 0, std::string(8, '\0')) + box("stbl", stbl));
    std::string hdlr = full_box(
        "hdlr", 0,
        be32(0) + std::string(s.handler, 4) + std::string(12, '\0') + std::string("Handler\0", 8));
    bool v1 = s.duration > UINT32_MAX;
    std::string mdhd = full_box("mdhd", v1,
                                std::string(v1 ? 16 : 8, '\0') + be32(s.timescale) +
                                    (v1 ? be64(s.duration) : be32(uint32_t(s.duration))) + be32(0));
    // Times, reserved words, layer, volume and matrix are all zero: only id and size matter.
    std::string tkhd = full_box("tkhd", 0,
                                std::string(8, '\0') + be32(s.id) + std::string(60, '\0') +
                                    be32(s.tkhdWidth) + be32(s.tkhdHeight));
    return box("trak", (s.withTkhd ? tkhd : "") + box("mdia", mdhd + hdlr + minf));
}

std::string moov(const std::string& children) {
    return box("moov", mvhd() + children);
}

std::string mp4_file(const std::string& moovBox) {
    return ftyp() + moovBox + box("mdat", std::string(64, '\x55'));
}

}  // namespace testsupport
}  // namespace korvel

// Tiny JPEG/EXIF writer for tests: a plan of the directories becomes a JPEG whose APP1 block
// is laid out the way the camera does it (IFD0, the EXIF directory right after it, IFD1, long
// values, thumbnail). Tests that need a broken file patch the bytes at the offsets given.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace korvel {
namespace testsupport {

enum ExifType : uint16_t {
    EXIF_BYTE = 1,
    EXIF_ASCII = 2,
    EXIF_SHORT = 3,
    EXIF_LONG = 4,
    EXIF_SBYTE = 6,
    EXIF_SSHORT = 8,
    EXIF_SLONG = 9,
    EXIF_DOUBLE = 12
};

enum ExifTag : uint16_t {
    TAG_MAKE = 0x010F,
    TAG_MODEL = 0x0110,
    TAG_RES_UNIT = 0x0128,
    TAG_YCBCR_POSITIONING = 0x0213,
    TAG_THUMB_OFFSET = 0x0201,
    TAG_THUMB_LENGTH = 0x0202,
    TAG_EXIF_POINTER = 0x8769,
    TAG_PIXEL_X = 0xA002,
    TAG_PIXEL_Y = 0xA003
};

// One directory entry: `bytes` as they are, or else `number` in the size of `type` and the
// block's byte order. Up to 4 bytes sit in the entry, longer values in the data area. With
// `rawField` the value field holds `field` whatever the value says (absurd offsets).
struct ExifEntry {
    uint16_t tag = 0;
    uint16_t type = EXIF_BYTE;
    uint32_t count = 0;
    uint32_t number = 0;
    std::string bytes;
    bool rawField = false;
    uint32_t field = 0;
};

ExifEntry exif_ascii(uint16_t tag, const std::string& text);         // count includes the NUL
ExifEntry exif_number(uint16_t tag, uint16_t type, uint32_t value);  // any one-value type
ExifEntry exif_raw(uint16_t tag, uint16_t type, uint32_t count, uint32_t field);
inline ExifEntry exif_short(uint16_t tag, uint16_t v) {
    return exif_number(tag, EXIF_SHORT, v);
}
inline ExifEntry exif_long(uint16_t tag, uint32_t v) {
    return exif_number(tag, EXIF_LONG, v);
}

struct JpegPlan {
    bool bigEndian = false;  // MM instead of II
    size_t app0Bytes = 0;    // whole APP0 segment (at least 4); the camera writes 18; 0: none
    bool withApp1 = true;
    uint32_t ifd0Offset = 8;  // values past 8 leave zero padding before IFD0
    std::vector<ExifEntry> ifd0;
    std::vector<ExifEntry> exif;  // after IFD0, which then points to it; none when empty
    // IFD1 is written when either is non-empty; a thumbnail puts its two tags first.
    std::string thumbnail;
    std::vector<ExifEntry> ifd1;
    std::string body;  // after APP1; empty means small_jpeg() without its SOI
};

std::string jpeg_file(const JpegPlan& photo);  // SOI, APP0?, APP1?, body

// Byte positions in jpeg_file(photo): the APP1 marker and TIFF offset 0.
size_t app1_pos(const JpegPlan& photo);
size_t tiff_pos(const JpegPlan& photo);

// A complete 8x8 grey baseline JPEG (about 130 bytes) that decoders accept.
std::string small_jpeg();

// Make, Model, ResolutionUnit 2, YCbCrPositioning 1, PixelX/YDimension as LONGs, and
// `thumbnail` in IFD1 when non-empty.
JpegPlan camera_plan(const std::string& make, const std::string& model, uint32_t width,
                     uint32_t height, const std::string& thumbnail = "");

}  // namespace testsupport
}  // namespace korvel

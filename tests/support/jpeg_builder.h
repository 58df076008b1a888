// Tiny JPEG/EXIF writer for tests: a plan of the directories becomes a JPEG whose APP1 block
// follows the SOI and is laid out the way the camera does it (IFD0 at TIFF offset 8, the EXIF
// directory right after it, IFD1, long values, thumbnail). Tests that need a broken or
// differently placed block patch the bytes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace korvel {
namespace testsupport {

// Field types and the tags the reader looks for.
constexpr uint16_t EXIF_BYTE = 1, EXIF_ASCII = 2, EXIF_SHORT = 3, EXIF_LONG = 4, EXIF_SBYTE = 6,
                   EXIF_SSHORT = 8, EXIF_SLONG = 9;
constexpr uint16_t TAG_MAKE = 0x010F, TAG_MODEL = 0x0110, TAG_RES_UNIT = 0x0128,
                   TAG_YCBCR_POSITIONING = 0x0213, TAG_PIXEL_X = 0xA002, TAG_PIXEL_Y = 0xA003;

// One directory entry: ASCII `text` (a NUL is added), or else `number` in the size of `type`
// and the block's byte order (raw `text` bytes when given). Up to 4 bytes sit in the entry,
// longer values in the data area.
struct ExifEntry {
    uint16_t tag;
    uint16_t type;
    uint32_t number = 0;
    std::string text = "";
};

struct JpegPlan {
    bool bigEndian = false;  // MM instead of II
    std::vector<ExifEntry> ifd0 = {};
    std::vector<ExifEntry> exif = {};  // after IFD0, which then points to it; none when empty
    std::string thumbnail = "";        // in IFD1, written when non-empty (longer than 4 bytes)
    std::string body = "";             // after APP1; empty means small_jpeg() without its SOI
};

std::string jpeg_file(const JpegPlan& photo);  // SOI, APP1, body

// A complete 8x8 grey baseline JPEG (about 130 bytes) that decoders accept.
std::string small_jpeg();

// Make, Model, ResolutionUnit 2, YCbCrPositioning 1, PixelX/YDimension as LONGs, and
// `thumbnail` in IFD1 when non-empty.
JpegPlan camera_plan(const std::string& make, const std::string& model, uint32_t width,
                     uint32_t height, const std::string& thumbnail = "");

}  // namespace testsupport
}  // namespace korvel

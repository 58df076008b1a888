#include "support/jpeg_builder.h"

namespace korvel {
namespace testsupport {
namespace {

// Writes `bytes` bytes of v in the block's byte order.
void put(std::string& out, uint32_t v, int bytes, bool bigEndian) {
    for (int i = 0; i < bytes; ++i) {
        out.push_back(char(v >> (bigEndian ? 8 * (bytes - 1 - i) : 8 * i)));
    }
}

// Appends one directory; long values go to `data`, which starts at TIFF offset `dataPos`.
void write_dir(std::string& out, const std::vector<ExifEntry>& entries, size_t next, bool be,
               std::string& data, size_t dataPos) {
    put(out, uint32_t(entries.size()), 2, be);
    for (const ExifEntry& e : entries) {
        std::string v = e.type == EXIF_ASCII ? e.text + '\0' : e.text;
        if (v.empty()) {
            bool two = e.type == EXIF_SHORT || e.type == EXIF_SSHORT;
            put(v, e.number, two ? 2 : e.type == EXIF_LONG || e.type == EXIF_SLONG ? 4 : 1, be);
        }
        put(out, e.tag, 2, be);
        put(out, e.type, 2, be);
        put(out, e.type == EXIF_ASCII ? uint32_t(v.size()) : 1, 4, be);
        if (v.size() <= 4) {
            out += v + std::string(4 - v.size(), '\0');
        } else {
            put(out, uint32_t(dataPos + data.size()), 4, be);
            data += v + std::string(v.size() & 1, '\0');
        }
    }
    put(out, uint32_t(next), 4, be);
}

std::string segment(uint8_t marker, const std::string& payload) {
    size_t n = payload.size() + 2;
    return std::string{char(0xFF), char(marker), char(n >> 8), char(n)} + payload;
}

}  // namespace

// Directory sizes depend only on entry counts, so every position is known before anything is
// written. The thumbnail is the long value of the IFD1 offset entry: the data area holds it
// last, and the entry points to it.
std::string jpeg_file(const JpegPlan& p) {
    std::vector<ExifEntry> ifd0 = p.ifd0, exif = p.exif, ifd1;
    size_t exifPos = 8 + 6 + 12 * (ifd0.size() + !p.exif.empty());
    if (!p.exif.empty()) {
        ifd0.push_back({0x8769, EXIF_LONG, uint32_t(exifPos)});
    }
    if (!p.thumbnail.empty()) {
        ifd1 = {{0x0201, EXIF_LONG, 0, p.thumbnail},
                {0x0202, EXIF_LONG, uint32_t(p.thumbnail.size())}};
    }
    size_t ifd1Pos = exifPos + (exif.empty() ? 0 : 6 + 12 * exif.size());
    size_t dataPos = ifd1Pos + (ifd1.empty() ? 0 : 30);  // IFD1: two entries
    std::string tiff = p.bigEndian ? "MM" : "II", data;
    put(tiff, 42, 2, p.bigEndian);
    put(tiff, 8, 4, p.bigEndian);
    write_dir(tiff, ifd0, ifd1.empty() ? 0 : ifd1Pos, p.bigEndian, data, dataPos);
    for (std::vector<ExifEntry>* dir : {&exif, &ifd1}) {
        if (!dir->empty()) {
            write_dir(tiff, *dir, 0, p.bigEndian, data, dataPos);
        }
    }
    return "\xFF\xD8" + segment(0xE1, std::string("Exif\0\0", 6) + tiff + data) +
           (p.body.empty() ? small_jpeg().substr(2) : p.body);
}

std::string small_jpeg() {
    std::string counts(16, '\0');  // one 1-bit code per table: DC category 0, AC end-of-block
    counts[0] = 1;
    return "\xFF\xD8" + segment(0xDB, std::string(1, '\0') + std::string(64, '\x01')) +
           segment(0xC0, std::string("\x08\x00\x08\x00\x08\x01\x01\x11\x00", 9)) +  // 8x8 grey
           segment(0xC4, std::string(1, '\x00') + counts + std::string(1, '\0')) +
           segment(0xC4, std::string(1, '\x10') + counts + std::string(1, '\0')) +
           segment(0xDA, std::string("\x01\x01\x00\x00\x3F\x00", 6)) +
           "\x3F"  // codes "0" (DC 0) and "0" (EOB), padded with ones
           "\xFF\xD9";
}

JpegPlan camera_plan(const std::string& make, const std::string& model, uint32_t width,
                     uint32_t height, const std::string& thumbnail) {
    JpegPlan s;
    s.ifd0 = {{TAG_MAKE, EXIF_ASCII, 0, make},
              {TAG_MODEL, EXIF_ASCII, 0, model},
              {TAG_RES_UNIT, EXIF_SHORT, 2},
              {TAG_YCBCR_POSITIONING, EXIF_SHORT, 1}};
    s.exif = {{TAG_PIXEL_X, EXIF_LONG, width}, {TAG_PIXEL_Y, EXIF_LONG, height}};
    s.thumbnail = thumbnail;
    return s;
}

}  // namespace testsupport
}  // namespace korvel

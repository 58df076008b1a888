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

std::string value_bytes(const ExifEntry& e, bool bigEndian) {
    if (!e.bytes.empty()) {
        return e.bytes;
    }
    static const int sizes[] = {0, 1, 1, 2, 4, 8, 1, 1, 2, 4, 8, 4, 8};
    std::string out;
    put(out, e.number, e.type < 13 && sizes[e.type] < 4 ? sizes[e.type] : 4, bigEndian);
    return out;
}

size_t dir_size(const std::vector<ExifEntry>& entries) {
    return entries.empty() ? 0 : 2 + 12 * entries.size() + 4;
}

// Appends one directory; long values go to `data`, which starts at TIFF offset `dataPos`.
void write_dir(std::string& out, const std::vector<ExifEntry>& entries, size_t next, bool be,
               std::string& data, size_t dataPos) {
    put(out, uint32_t(entries.size()), 2, be);
    for (const ExifEntry& e : entries) {
        put(out, e.tag, 2, be);
        put(out, e.type, 2, be);
        put(out, e.count, 4, be);
        std::string v = value_bytes(e, be);
        if (e.rawField) {
            put(out, e.field, 4, be);
        } else if (v.size() <= 4) {
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

// The TIFF structure. Directory sizes depend only on entry counts, so every position is known
// before anything is written; the data area's size is summed the same way.
std::string exif_tiff(const JpegPlan& p) {
    std::vector<ExifEntry> ifd0 = p.ifd0, ifd1;
    if (!p.exif.empty()) {
        ifd0.push_back(exif_long(TAG_EXIF_POINTER, 0));
    }
    if (!p.thumbnail.empty()) {
        ifd1 = {exif_long(TAG_THUMB_OFFSET, 0),
                exif_long(TAG_THUMB_LENGTH, uint32_t(p.thumbnail.size()))};
    }
    ifd1.insert(ifd1.end(), p.ifd1.begin(), p.ifd1.end());
    size_t ifd0Pos = p.ifd0Offset < 8 ? 8 : p.ifd0Offset;
    size_t exifPos = ifd0Pos + 2 + 12 * ifd0.size() + 4;
    size_t ifd1Pos = exifPos + dir_size(p.exif);
    size_t dataPos = ifd1Pos + dir_size(ifd1), thumbPos = dataPos;
    for (const std::vector<ExifEntry>& dir : {ifd0, p.exif, ifd1}) {
        for (const ExifEntry& e : dir) {
            size_t n = value_bytes(e, p.bigEndian).size();
            thumbPos += n > 4 ? n + (n & 1) : 0;
        }
    }
    if (!p.exif.empty()) {
        ifd0.back().number = uint32_t(exifPos);
    }
    if (!p.thumbnail.empty()) {
        ifd1[0].number = uint32_t(thumbPos);
    }
    std::string out = p.bigEndian ? "MM" : "II", data;
    put(out, 42, 2, p.bigEndian);
    put(out, p.ifd0Offset, 4, p.bigEndian);
    out.resize(ifd0Pos, '\0');
    write_dir(out, ifd0, ifd1.empty() ? 0 : ifd1Pos, p.bigEndian, data, dataPos);
    if (!p.exif.empty()) {
        write_dir(out, p.exif, 0, p.bigEndian, data, dataPos);
    }
    if (!ifd1.empty()) {
        write_dir(out, ifd1, 0, p.bigEndian, data, dataPos);
    }
    return out + data + p.thumbnail;
}

}  // namespace

ExifEntry exif_number(uint16_t tag, uint16_t type, uint32_t value) {
    ExifEntry e;
    e.tag = tag;
    e.type = type;
    e.count = 1;
    e.number = value;
    return e;
}

ExifEntry exif_ascii(uint16_t tag, const std::string& text) {
    ExifEntry e = exif_number(tag, EXIF_ASCII, 0);
    e.bytes = text + std::string(1, '\0');
    e.count = uint32_t(e.bytes.size());
    return e;
}

ExifEntry exif_raw(uint16_t tag, uint16_t type, uint32_t count, uint32_t field) {
    ExifEntry e = exif_number(tag, type, 0);
    e.count = count;
    e.rawField = true;
    e.field = field;
    return e;
}

std::string jpeg_file(const JpegPlan& photo) {
    std::string out = "\xFF\xD8";
    if (photo.app0Bytes > 0) {
        std::string jfif("JFIF\0\x01\x01\0\0\x01\0\x01\0\0", 14);
        jfif.resize(photo.app0Bytes < 4 ? 0 : photo.app0Bytes - 4, '\0');
        out += segment(0xE0, jfif);
    }
    if (photo.withApp1) {
        out += segment(0xE1, std::string("Exif\0\0", 6) + exif_tiff(photo));
    }
    return out + (photo.body.empty() ? small_jpeg().substr(2) : photo.body);
}

size_t app1_pos(const JpegPlan& photo) {
    return 2 + (photo.app0Bytes == 0 ? 0 : (photo.app0Bytes < 4 ? 4 : photo.app0Bytes));
}

size_t tiff_pos(const JpegPlan& photo) {
    return app1_pos(photo) + 10;
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
    s.ifd0 = {exif_ascii(TAG_MAKE, make), exif_ascii(TAG_MODEL, model), exif_short(TAG_RES_UNIT, 2),
              exif_short(TAG_YCBCR_POSITIONING, 1)};
    s.exif = {exif_long(TAG_PIXEL_X, width), exif_long(TAG_PIXEL_Y, height)};
    s.thumbnail = thumbnail;
    return s;
}

}  // namespace testsupport
}  // namespace korvel

#include "support/jpeg_builder.h"

namespace korvel {
namespace testsupport {
namespace {

// Writes `bytes` bytes of v in the block's byte order.
void put(std::string& out, uint32_t v, int bytes, bool bigEndian) {
    for (int i = 0; i < bytes; ++i) {
        int shift = bigEndian ? 8 * (bytes - 1 - i) : 8 * i;
        out.push_back(char((v >> shift) & 0xFF));
    }
}

std::string word16be(uint16_t v) {
    return {char(v >> 8), char(v & 0xFF)};
}

int type_size(uint16_t type) {
    static const int sizes[] = {0, 1, 1, 2, 4, 8, 1, 1, 2, 4, 8, 4, 8};
    return type < 13 ? sizes[type] : 1;
}

// The value bytes of an entry; numbers of 8-byte types are written as 4-byte halves.
std::string value_bytes(const ExifEntry& e, bool bigEndian) {
    if (!e.bytes.empty() || e.numbers.empty()) {
        return e.bytes;
    }
    int width = type_size(e.type) > 4 ? 4 : type_size(e.type);
    std::string out;
    for (uint32_t n : e.numbers) {
        put(out, n, width, bigEndian);
    }
    return out;
}

size_t dir_size(size_t entries) {
    return 2 + 12 * entries + 4;
}

struct Layout {
    std::vector<ExifEntry> ifd0, ifd1;
    size_t ifd0Pos = 0, exifPos = 0, ifd1Pos = 0, dataPos = 0, thumbPos = 0;
};

std::vector<ExifEntry> all_entries(const Layout& l, const JpegPlan& photo) {
    std::vector<ExifEntry> all = l.ifd0;
    all.insert(all.end(), photo.exif.begin(), photo.exif.end());
    all.insert(all.end(), l.ifd1.begin(), l.ifd1.end());
    return all;
}

// Places the directories and sizes the data area, so every offset is known before writing.
Layout lay_out(const JpegPlan& photo) {
    Layout l;
    l.ifd0 = photo.ifd0;
    if (!photo.exif.empty()) {
        l.ifd0.push_back(exif_long(TAG_EXIF_POINTER, 0));  // patched below
    }
    bool hasIfd1 = !photo.thumbnail.empty() || !photo.ifd1.empty();
    if (!photo.thumbnail.empty()) {
        l.ifd1.push_back(exif_long(TAG_THUMB_OFFSET, 0));  // patched below
        l.ifd1.push_back(exif_long(TAG_THUMB_LENGTH, uint32_t(photo.thumbnail.size())));
    }
    l.ifd1.insert(l.ifd1.end(), photo.ifd1.begin(), photo.ifd1.end());

    l.ifd0Pos = photo.ifd0Offset < 8 ? 8 : photo.ifd0Offset;
    l.exifPos = l.ifd0Pos + dir_size(l.ifd0.size());
    l.ifd1Pos = l.exifPos + (photo.exif.empty() ? 0 : dir_size(photo.exif.size()));
    l.dataPos = l.ifd1Pos + (hasIfd1 ? dir_size(l.ifd1.size()) : 0);
    size_t data = 0;
    for (const ExifEntry& e : all_entries(l, photo)) {
        size_t n = value_bytes(e, photo.bigEndian).size();
        if (n > 4) {
            data += n + (n & 1);
        }
    }
    l.thumbPos = l.dataPos + data;
    if (!photo.exif.empty()) {
        l.ifd0.back().numbers = {uint32_t(l.exifPos)};
    }
    if (!photo.thumbnail.empty()) {
        l.ifd1[0].numbers = {uint32_t(l.thumbPos)};
    }
    return l;
}

// Appends one directory; long values go to `data`, whose first byte sits at TIFF offset
// `*dataPos`.
void write_dir(std::string& out, const std::vector<ExifEntry>& entries, uint32_t next,
               bool bigEndian, std::string& data, size_t dataPos) {
    put(out, uint32_t(entries.size()), 2, bigEndian);
    for (const ExifEntry& e : entries) {
        put(out, e.tag, 2, bigEndian);
        put(out, e.type, 2, bigEndian);
        put(out, e.count, 4, bigEndian);
        std::string v = value_bytes(e, bigEndian);
        if (e.rawField) {
            put(out, e.field, 4, bigEndian);
        } else if (v.size() <= 4) {
            out += v + std::string(4 - v.size(), '\0');
        } else {
            put(out, uint32_t(dataPos + data.size()), 4, bigEndian);
            data += v;
            if (v.size() & 1) {
                data.push_back('\0');
            }
        }
    }
    put(out, next, 4, bigEndian);
}

std::string app0(size_t bytes) {
    if (bytes < 4) {
        bytes = 4;
    }
    std::string jfif("JFIF\0\x01\x01\0\0\x01\0\x01\0\0", 14);
    jfif.resize(bytes - 4, '\0');
    return "\xFF\xE0" + word16be(uint16_t(bytes - 2)) + jfif;
}

std::string marker_segment(uint8_t marker, const std::string& payload) {
    return std::string{char(0xFF), char(marker)} + word16be(uint16_t(payload.size() + 2)) + payload;
}

}  // namespace

ExifEntry exif_ascii(uint16_t tag, const std::string& text) {
    ExifEntry e;
    e.tag = tag;
    e.type = EXIF_ASCII;
    e.bytes = text + std::string(1, '\0');
    e.count = uint32_t(e.bytes.size());
    return e;
}

ExifEntry exif_number(uint16_t tag, uint16_t type, uint32_t value) {
    ExifEntry e;
    e.tag = tag;
    e.type = type;
    e.count = 1;
    e.numbers = {value};
    return e;
}

ExifEntry exif_short(uint16_t tag, uint16_t value) {
    return exif_number(tag, EXIF_SHORT, value);
}

ExifEntry exif_long(uint16_t tag, uint32_t value) {
    return exif_number(tag, EXIF_LONG, value);
}

ExifEntry exif_rational(uint16_t tag, uint32_t num, uint32_t den) {
    ExifEntry e = exif_number(tag, EXIF_RATIONAL, num);
    e.numbers.push_back(den);
    return e;
}

ExifEntry exif_raw(uint16_t tag, uint16_t type, uint32_t count, uint32_t field) {
    ExifEntry e;
    e.tag = tag;
    e.type = type;
    e.count = count;
    e.rawField = true;
    e.field = field;
    return e;
}

std::string exif_tiff(const JpegPlan& photo) {
    Layout l = lay_out(photo);
    bool be = photo.bigEndian;
    std::string out = be ? "MM" : "II";
    put(out, 42, 2, be);
    put(out, photo.ifd0Offset, 4, be);
    out.resize(l.ifd0Pos, '\0');
    std::string data;
    bool hasIfd1 = !l.ifd1.empty();
    write_dir(out, l.ifd0, hasIfd1 ? uint32_t(l.ifd1Pos) : 0, be, data, l.dataPos);
    if (!photo.exif.empty()) {
        write_dir(out, photo.exif, 0, be, data, l.dataPos);
    }
    if (hasIfd1) {
        write_dir(out, l.ifd1, 0, be, data, l.dataPos);
    }
    return out + data + photo.thumbnail;
}

std::string exif_app1(const JpegPlan& photo) {
    return marker_segment(0xE1, std::string("Exif\0\0", 6) + exif_tiff(photo));
}

std::string jpeg_file(const JpegPlan& photo) {
    std::string out = "\xFF\xD8";
    if (photo.app0Bytes > 0) {
        out += app0(photo.app0Bytes);
    }
    if (photo.withApp1) {
        out += exif_app1(photo);
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
    std::string out = "\xFF\xD8";
    out += marker_segment(0xDB, std::string(1, '\0') + std::string(64, '\x01'));
    // 8x8, 8-bit, one component sampled 1x1 with table 0.
    out += marker_segment(0xC0, std::string("\x08\x00\x08\x00\x08\x01\x01\x11\x00", 9));
    // One 1-bit code per table: DC category 0 and the AC end-of-block.
    std::string counts(16, '\0');
    counts[0] = 1;
    out += marker_segment(0xC4, std::string(1, '\x00') + counts + std::string(1, '\0'));
    out += marker_segment(0xC4, std::string(1, '\x10') + counts + std::string(1, '\0'));
    out += marker_segment(0xDA, std::string("\x01\x01\x00\x00\x3F\x00", 6));
    out += "\x3F";  // codes "0" (DC 0) and "0" (EOB), padded with ones
    return out + "\xFF\xD9";
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

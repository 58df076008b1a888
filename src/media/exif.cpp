// EXIF reader for the camera's JPEG photos: six record facts from the APP1 block and the
// IFD1 thumbnail. Runs on the main thread; every byte order, buffer and position is local to
// one call, and every offset taken from the file is checked against the bytes really there.
#include "media/exif.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <new>

#include "core/byte_order.h"
#include "core/text.h"

namespace korvel {
namespace {

constexpr size_t NAME_FIELD = 32;  // maker and model fields of the media record
constexpr size_t FACT_FIELD = 16;  // the other fact fields
constexpr size_t TEXT_SIZE = 1024;
constexpr uint32_t TIFF_START = 8;  // segment offset of the TIFF header
constexpr size_t APP0_BYTES = 18;

// Field types whose numbers are read by their own width and sign.
constexpr uint16_t TYPE_BYTE = 1;
constexpr uint16_t TYPE_ASCII = 2;
constexpr uint16_t TYPE_SHORT = 3;
constexpr uint16_t TYPE_SBYTE = 6;
constexpr uint16_t TYPE_UNDEFINED = 7;
constexpr uint16_t TYPE_SSHORT = 8;

constexpr uint16_t TAG_MAKE = 0x010F;
constexpr uint16_t TAG_MODEL = 0x0110;
constexpr uint16_t TAG_RES_UNIT = 0x0128;
constexpr uint16_t TAG_YCBCR_POSITIONING = 0x0213;
constexpr uint16_t TAG_PIXEL_X = 0xA002;
constexpr uint16_t TAG_PIXEL_Y = 0xA003;
constexpr uint16_t TAG_THUMB_OFFSET = 0x0201;
constexpr uint16_t TAG_THUMB_LENGTH = 0x0202;

struct FileCloser {
    void operator()(FILE* fp) const { fclose(fp); }
};
using ScopedFile = std::unique_ptr<FILE, FileCloser>;

// A stream over a duplicate of fd from its first byte; the caller keeps its descriptor.
FILE* stream_from(int fd) {
    int copy = fd >= 0 ? fcntl(fd, F_DUPFD_CLOEXEC, 0) : -1;
    FILE* fp = copy >= 0 ? fdopen(copy, "rb") : nullptr;
    if (fp == nullptr) {
        if (copy >= 0) {
            close(copy);
        }
        return nullptr;
    }
    if (fseek(fp, 0, SEEK_SET) != 0) {
        fclose(fp);
        return nullptr;
    }
    return fp;
}

// Regular files only, and without waiting: a FIFO given by name must not block the reader.
int open_regular(const char* path) {
    int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    struct stat st;
    if (fd >= 0 && (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode))) {
        close(fd);
        return -1;
    }
    return fd;
}

// The APP1 segment of one read and its byte order.
struct Segment {
    const uint8_t* data;
    uint32_t length;
    bool bigEndian;
};

bool has(const Segment& s, uint64_t pos, uint64_t bytes) {
    return pos <= s.length && bytes <= s.length - pos;
}

uint16_t get16(const uint8_t* p, bool bigEndian) {
    return bigEndian ? load_be16(p) : load_le16(p);
}

uint32_t get32(const uint8_t* p, bool bigEndian) {
    uint32_t a = get16(p, bigEndian), b = get16(p + 2, bigEndian);
    return bigEndian ? (a << 16 | b) : (b << 16 | a);
}

// Byte size of one value of a field type; 0 for a type we do not know.
uint32_t type_size(uint16_t type) {
    static const uint8_t sizes[] = {0, 1, 1, 2, 4, 8, 1, 1, 2, 4, 8, 4, 8};
    return type < sizeof sizes ? sizes[type] : 0;
}

// Bytes up to the first NUL, at most `max`, as a terminated text.
void take_text(char* text, const uint8_t* p, size_t max) {
    size_t n = 0;
    while (n < max && p[n] != 0) {
        text[n] = char(p[n]);
        ++n;
    }
    text[n] = 0;
}

// A value of at most 4 bytes sits in the entry's value field: ASCII as text, everything
// else as the signed decimal of the number its type describes.
void inline_value(char* text, uint16_t type, uint32_t length, const uint8_t* field, bool be) {
    int number;
    switch (type) {
        case TYPE_ASCII:
            take_text(text, field, length);
            return;
        case TYPE_SHORT:
            number = get16(field, be);
            break;
        case TYPE_SSHORT:
            number = int16_t(get16(field, be));
            break;
        case TYPE_SBYTE:
            number = int8_t(field[0]);
            break;
        case TYPE_BYTE:
        case TYPE_UNDEFINED:
            number = field[0];
            break;
        default:  // LONG, SLONG and the field of any other type: the 32 bits as an int
            number = int(get32(field, be));
            break;
    }
    snprintf(text, TEXT_SIZE, "%d", number);
}

// Decodes the 12-byte entry at segment offset `pos` into text (TEXT_SIZE bytes); 0, or -1
// for a bad type or a value that lies outside the segment.
int exif_decode_entry(const Segment& s, uint32_t pos, char* text, uint16_t* tag, uint32_t* length) {
    const uint8_t* e = s.data + pos;
    uint16_t type = get16(e + 2, s.bigEndian);
    uint32_t size = type_size(type);
    if (size == 0) {
        printf("wrong format type %d \n", type);
        return -1;
    }
    uint64_t bytes = uint64_t(get32(e + 4, s.bigEndian)) * size;
    *tag = get16(e, s.bigEndian);
    *length = bytes > UINT32_MAX ? UINT32_MAX : uint32_t(bytes);
    if (bytes <= 4) {
        inline_value(text, type, uint32_t(bytes), e + 8, s.bigEndian);
        return 0;
    }
    uint64_t at = uint64_t(TIFF_START) + get32(e + 8, s.bigEndian);
    if (!has(s, at, bytes)) {
        return -1;
    }
    take_text(text, s.data + at, bytes < TEXT_SIZE ? size_t(bytes) : TEXT_SIZE - 1);
    return 0;
}

struct Target {
    uint16_t tag;
    char* field;
    size_t width;
};

// Walks the directory at segment offset `dir`, copying the texts of the wanted tags, and
// gives its entry count (read as signed; below 1 means none). False when even the count
// lies outside the segment.
bool walk_dir(const Segment& s, uint32_t dir, const Target* targets, size_t ntargets, int* count) {
    if (!has(s, dir, 2)) {
        return false;
    }
    *count = int16_t(get16(s.data + dir, s.bigEndian));
    char text[TEXT_SIZE];
    for (int i = 0; i < *count; ++i) {
        uint32_t pos = dir + 2 + 12 * uint32_t(i);
        if (!has(s, pos, 12)) {
            break;  // the walk ends at the segment's end
        }
        uint16_t tag = 0;
        uint32_t length = 0;
        if (exif_decode_entry(s, pos, text, &tag, &length) != 0) {
            continue;
        }
        for (size_t t = 0; t < ntargets; ++t) {
            if (targets[t].tag == tag) {
                copy_truncated(targets[t].field, targets[t].width, text);
            }
        }
    }
    return true;
}

// strncmp of offsets 2.. against "Exif" and its NUL; a byte past the segment never matches.
int compare_identifier(const uint8_t* seg, uint32_t length) {
    static const char ident[] = "Exif";
    for (uint32_t i = 0; i < sizeof ident; ++i) {
        if (2 + i >= length) {
            return -1;
        }
        int d = int(seg[2 + i]) - int(uint8_t(ident[i]));
        if (d != 0) {
            return d;
        }
    }
    return 0;
}

// Checks identifier, byte order, 42 and the IFD0 offset; 0 with *ifd0 set, else the result
// of the header check.
int check_header(Segment& s, uint32_t* ifd0) {
    const uint8_t* seg = s.data;
    int cmp = compare_identifier(seg, s.length);
    if (cmp != 0) {
        printf("debug: not valid exif head %c, %c\n", s.length > 2 ? seg[2] : '?',
               s.length > 3 ? seg[3] : '?');
        return cmp;
    }
    uint8_t b0 = s.length > 8 ? seg[8] : 0, b1 = s.length > 9 ? seg[9] : 0;
    if (!(b0 == b1 && (b0 == 'I' || b0 == 'M'))) {
        printf("debug: not valid endian %d, %d\n", b0, b1);
        return -1;
    }
    s.bigEndian = b0 == 'M';
    b0 = s.length > 10 ? seg[10] : 0;
    b1 = s.length > 11 ? seg[11] : 0;
    uint8_t fixed[2] = {b0, b1};
    if (get16(fixed, s.bigEndian) != 42) {
        printf("debug: not valid fixed byte %d, %d\n", b0, b1);
        return -1;
    }
    if (!has(s, 12, 4)) {
        return -1;
    }
    *ifd0 = get32(seg + 12, s.bigEndian);
    return (*ifd0 >= 8 && *ifd0 <= 16) ? 0 : -1;
}

}  // namespace

int exif_parse_app1(const uint8_t* segment, uint32_t segmentLength, char* maker, char* model,
                    char* width, char* height, char* resUnit, char* colourSpace) {
    if (segment == nullptr || !maker || !model || !width || !height || !resUnit || !colourSpace) {
        printf("debug: not valid input param %p\n", static_cast<const void*>(segment));
        return -1;
    }
    Segment s{segment, segmentLength, false};
    uint32_t ifd0 = 0;
    int rc = check_header(s, &ifd0);
    if (rc != 0) {
        return rc;
    }
    const Target ifd0Tags[] = {{TAG_MAKE, maker, NAME_FIELD},
                               {TAG_MODEL, model, NAME_FIELD},
                               {TAG_RES_UNIT, resUnit, FACT_FIELD},
                               {TAG_YCBCR_POSITIONING, colourSpace, FACT_FIELD}};
    uint32_t dir0 = TIFF_START + ifd0;
    int count = 0;
    if (!walk_dir(s, dir0, ifd0Tags, 4, &count)) {
        return 0;
    }
    // The camera writes the EXIF directory right after IFD0's next-directory field.
    uint32_t exifDir = dir0 + 2 + 12 * uint32_t(count < 1 ? 0 : count) + 4;
    const Target exifTags[] = {{TAG_PIXEL_X, width, FACT_FIELD}, {TAG_PIXEL_Y, height, FACT_FIELD}};
    walk_dir(s, exifDir, exifTags, 2, &count);
    return 0;
}

int jpeg_check_soi(FILE* fp) {
    uint8_t soi[2];
    if (fp == nullptr || fread(soi, 1, 2, fp) != 2) {
        return -1;
    }
    return (soi[0] == 0xFF && soi[1] == 0xD8) ? 0 : -1;
}

void jpeg_skip_app0(FILE* fp) {
    if (fp == nullptr) {
        return;
    }
    long pos = ftell(fp);
    uint8_t app0[APP0_BYTES];
    size_t n = fread(app0, 1, sizeof app0, fp);
    if (n == sizeof app0 && app0[0] == 0xFF && app0[1] == 0xE0) {
        return;
    }
    fseek(fp, pos, SEEK_SET);
}

namespace {

// Size of the open file, leaving the position where it was; -1 when unknown.
long file_size(FILE* fp) {
    long pos = ftell(fp);
    if (pos < 0 || fseek(fp, 0, SEEK_END) != 0) {
        return -1;
    }
    long size = ftell(fp);
    fseek(fp, pos, SEEK_SET);
    return size;
}

// Reads the APP1 segment that starts at `pos` (its marker) and walks it; -1 for an
// implausible length.
int read_app1(FILE* fp, long pos, long fileSize, uint32_t length, char* const* fields) {
    if (length > uint64_t(fileSize) + 1 || length < 2) {
        printf("debug: metasize exceed: %d  %d\n", int(length), int(fileSize + 1));
        return -1;
    }
    std::unique_ptr<uint8_t[]> buf(new (std::nothrow) uint8_t[length]);
    if (!buf || fseek(fp, pos + 2, SEEK_SET) != 0) {
        return 0;
    }
    size_t got = fread(buf.get(), 1, length, fp);
    exif_parse_app1(buf.get(), uint32_t(got), fields[0], fields[1], fields[2], fields[3], fields[4],
                    fields[5]);
    return 0;
}

}  // namespace

int exif_read_photo_info_fd(char* maker, char* model, char* width, char* height, char* resUnit,
                            char* colourSpace, int fd) {
    ScopedFile fp(stream_from(fd));
    if (!fp || jpeg_check_soi(fp.get()) != 0) {
        return -1;
    }
    jpeg_skip_app0(fp.get());
    long pos = ftell(fp.get());
    long size = file_size(fp.get());
    uint8_t head[10];
    size_t got = (pos < 0 || size < 0) ? 0 : fread(head, 1, sizeof head, fp.get());
    if (got < 4 || head[0] != 0xFF || head[1] != 0xE1) {
        return 0;  // no EXIF where the camera puts it: nothing to fill
    }
    char* const fields[] = {maker, model, width, height, resUnit, colourSpace};
    return read_app1(fp.get(), pos, size, load_be16(head + 2), fields);
}

int exif_read_photo_info(char* maker, char* model, char* width, char* height, char* resUnit,
                         char* colourSpace, const char* path) {
    int fd = path ? open_regular(path) : -1;
    if (fd < 0) {
        printf("bad open file: %s\n", path ? path : "(null)");
        return -1;
    }
    int rc = exif_read_photo_info_fd(maker, model, width, height, resUnit, colourSpace, fd);
    close(fd);
    return rc;
}

namespace {

// The thumbnail walk over an open file whose TIFF header starts at `tiff`; every seek and
// read is checked against the file's size.
struct TiffFile {
    FILE* fp;
    uint64_t tiff;
    uint64_t size;
    bool bigEndian;
};

bool seek_to(const TiffFile& t, uint64_t offset) {
    uint64_t pos = t.tiff + offset;
    return pos <= t.size && fseek(t.fp, long(pos), SEEK_SET) == 0;
}

bool read_u16(const TiffFile& t, uint16_t* v) {
    uint8_t b[2];
    if (fread(b, 1, 2, t.fp) != 2) {
        return false;
    }
    *v = get16(b, t.bigEndian);
    return true;
}

bool read_u32(const TiffFile& t, uint32_t* v) {
    uint8_t b[4];
    if (fread(b, 1, 4, t.fp) != 4) {
        return false;
    }
    *v = get32(b, t.bigEndian);
    return true;
}

// TIFF offset of IFD1, or 0 when there is none or it cannot be reached.
uint32_t find_ifd1(const TiffFile& t, uint32_t ifd0) {
    uint16_t count = 0;
    uint32_t next = 0;
    if (!seek_to(t, ifd0) || !read_u16(t, &count) ||
        !seek_to(t, uint64_t(ifd0) + 2 + 12 * uint64_t(count)) || !read_u32(t, &next)) {
        return 0;
    }
    return next;
}

// Thumbnail offset and length from IFD1; false when the directory is empty or cut short.
bool read_ifd1(const TiffFile& t, uint32_t ifd1, uint32_t* offset, uint32_t* length) {
    uint16_t count = 0;
    if (!seek_to(t, ifd1) || !read_u16(t, &count) || count == 0) {
        return false;
    }
    for (uint16_t i = 0; i < count; ++i) {
        uint8_t e[12];
        if (fread(e, 1, sizeof e, t.fp) != sizeof e) {
            return false;
        }
        uint16_t tag = get16(e, t.bigEndian);
        if (tag == TAG_THUMB_OFFSET) {
            *offset = get32(e + 8, t.bigEndian);
        } else if (tag == TAG_THUMB_LENGTH) {
            *length = get32(e + 8, t.bigEndian);
        }
    }
    return true;
}

// Positions `fp` on the TIFF header (SOI, optional APP0, 10 unchecked APP1 bytes) and reads
// the byte-order mark; false when the file is not laid out that way.
bool open_tiff(FILE* fp, TiffFile* t) {
    long size = file_size(fp);
    if (size < 0 || jpeg_check_soi(fp) != 0) {
        return false;
    }
    jpeg_skip_app0(fp);
    long app1 = ftell(fp);  // the APP1 marker, length and identifier are taken on trust
    if (app1 < 0 || app1 + 10 + 4 > size || fseek(fp, app1 + 10, SEEK_SET) != 0) {
        return false;
    }
    uint8_t mark[4];
    if (fread(mark, 1, 4, fp) != 4 || mark[0] != mark[1] || (mark[0] != 'I' && mark[0] != 'M')) {
        return false;
    }
    *t = TiffFile{fp, uint64_t(app1) + 10, uint64_t(size), mark[0] == 'M'};
    return true;
}

}  // namespace

int exif_read_thumbnail_fd(int fd, uint8_t* buffer, uint32_t capacity, uint32_t* size) {
    ScopedFile fp(stream_from(fd));
    if (!fp || buffer == nullptr || size == nullptr) {
        return -1;
    }
    TiffFile t{};
    uint32_t ifd0 = 0, ifd1 = 0, offset = 0, length = 0;
    if (!open_tiff(fp.get(), &t) || !read_u32(t, &ifd0) || (ifd1 = find_ifd1(t, ifd0)) == 0 ||
        !read_ifd1(t, ifd1, &offset, &length)) {
        return -1;
    }
    // A thumbnail that does not fit, or that the file does not hold, is not copied at all.
    if (offset == 0 || length == 0 || length > capacity || !seek_to(t, offset) ||
        t.tiff + offset + length > t.size || fread(buffer, 1, length, fp.get()) != length) {
        return -1;
    }
    *size = length;
    return 0;
}

int exif_read_thumbnail(const char* path, uint8_t* buffer, uint32_t capacity, uint32_t* size) {
    if (path == nullptr || buffer == nullptr || size == nullptr) {
        fprintf(stderr, "bad parameter!\n");
        return -1;
    }
    int fd = open_regular(path);
    if (fd < 0) {
        fprintf(stderr, "bad open file,%s\n", path);
        return -1;
    }
    int rc = exif_read_thumbnail_fd(fd, buffer, capacity, size);
    close(fd);
    return rc;
}

}  // namespace korvel

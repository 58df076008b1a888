// EXIF reader: where APP1 may sit, byte orders, value forms, header lines and the IFD1
// thumbnail; files cut anywhere or pointing anywhere are never read outside.
#include "media/exif.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "support/jpeg_builder.h"
#include "support/temp_dir.h"

namespace korvel {
namespace {

using namespace testsupport;
using Texts = std::vector<std::string>;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

const Texts KEPT(6, "keep");
const Texts CAMERA = {"Korvel", "KV-200", "640", "480", "2", "1"};
constexpr uint32_t CAPACITY = 122880;

struct Facts {  // the record's field sizes, so a write past one trips the sanitizers
    char maker[32], model[32], width[16], height[16], resUnit[16], colour[16];
    char* f[6] = {maker, model, width, height, resUnit, colour};
    explicit Facts(const char* fill = "") {
        for (char* field : f) {
            strcpy(field, fill);
        }
    }
    Texts texts() const { return Texts(f, f + 6); }
};

class Exif : public ::testing::Test {
protected:
    TempDir tmp;
    std::vector<uint8_t> buf = std::vector<uint8_t>(CAPACITY, 0xAA);
    uint32_t size = 7;

    std::string put(const std::string& bytes) {
        write_file(tmp.file("p.JPG"), bytes);
        return tmp.file("p.JPG");
    }
    int read(const std::string& bytes, Facts* x, const std::string& path = "") {
        std::string p = path.empty() ? put(bytes) : path;
        CaptureStdout();
        int rc =
            exif_read_photo_info(x->f[0], x->f[1], x->f[2], x->f[3], x->f[4], x->f[5], p.c_str());
        GetCapturedStdout();  // the reader's debug lines
        return rc;
    }
    int thumb(const std::string& bytes, uint32_t capacity = CAPACITY) {
        return exif_read_thumbnail(put(bytes).c_str(), buf.data(), capacity, &size);
    }
    bool untouched() const { return size == 7 && buf[0] == 0xAA && buf[CAPACITY - 1] == 0xAA; }
};

TEST_F(Exif, App1IsReadFirstOrAfterAnEighteenByteApp0) {
    struct Case {
        size_t app0;
        bool app1;
        const Texts& want;
    } cases[] = {{0, true, CAMERA}, {18, true, CAMERA}, {30, true, KEPT}, {18, false, KEPT}};
    for (const Case& c : cases) {
        JpegPlan photo = camera_plan("Korvel", "KV-200", 640, 480);
        photo.exif[0] = exif_short(TAG_PIXEL_X, 640);  // a SHORT width reads the same
        photo.bigEndian = c.app0 == 18;
        photo.app0Bytes = c.app0;
        photo.withApp1 = c.app1;
        Facts x("keep");
        EXPECT_EQ(read(jpeg_file(photo), &x), 0);
        EXPECT_EQ(x.texts(), c.want) << "app0 " << c.app0 << " app1 " << c.app1;
    }
}

TEST_F(Exif, ValuesAreReadByTheirTypeAndCutToTheField) {
    struct Case {
        ExifEntry entry;
        size_t field;
        std::string want;
    } cases[] = {
        {exif_ascii(TAG_MAKE, "Kov"), 0, "Kov"},  // in the entry itself: text, not a number
        {exif_ascii(TAG_MODEL, std::string(40, 'x')), 1, std::string(31, 'x')},
        {exif_number(TAG_RES_UNIT, EXIF_BYTE, 200), 4, "200"},
        {exif_number(TAG_RES_UNIT, EXIF_SBYTE, 0xFF), 4, "-1"},
        {exif_number(TAG_RES_UNIT, EXIF_SHORT, 65535), 4, "65535"},
        {exif_number(TAG_RES_UNIT, EXIF_SSHORT, 0xFFFE), 4, "-2"},
        {exif_number(TAG_YCBCR_POSITIONING, EXIF_LONG, 0x80000000u), 5, "-2147483648"},
        {exif_number(TAG_YCBCR_POSITIONING, EXIF_SLONG, 70000), 5, "70000"},
        {exif_raw(TAG_MAKE, EXIF_ASCII, 10, 0xFFFFFFF8u), 0, ""},  // value outside: skipped
        {exif_raw(TAG_MAKE, EXIF_DOUBLE, 0x40000000u, 8), 0, ""},  // length overflows 32 bits
    };
    for (bool be : {false, true}) {
        for (const Case& c : cases) {
            JpegPlan photo;
            photo.bigEndian = be;
            photo.ifd0 = {c.entry};
            Facts x;
            EXPECT_EQ(read(jpeg_file(photo), &x), 0);
            EXPECT_EQ(x.texts()[c.field], c.want) << &c - cases << " be " << be;
        }
    }
}

TEST_F(Exif, FailuresFillNothing) {
    JpegPlan photo = camera_plan("Korvel", "KV-200", 640, 480);
    photo.ifd0Offset = 16;  // the farthest IFD0 allowed
    const std::string good = jpeg_file(photo);
    const size_t seg = app1_pos(photo) + 2;  // the length, then "Exif"
    const std::pair<size_t, std::string> cases[] = {
        {2, "Exig"}, {8, "IM"}, {10, std::string("\x2B\0", 2)}, {12, std::string("\x14\0\0\0", 4)}};
    for (const auto& [at, bytes] : cases) {  // header, byte order, 42, IFD0 at 20
        std::string bad = good;
        bad.replace(seg + at, bytes.size(), bytes);
        Facts x("keep");
        EXPECT_EQ(read(bad, &x), 0) << at;
        EXPECT_EQ(x.texts(), KEPT) << at;
    }
    Facts x;
    CaptureStdout();
    EXPECT_EQ(exif_parse_app1(nullptr, 100, x.f[0], x.f[1], x.f[2], x.f[3], x.f[4], x.f[5]), -1);
    GetCapturedStdout();
    std::string file = good;
    file[app1_pos(photo) + 2] = char((file.size() + 2) >> 8);  // APP1 longer than the file
    file[app1_pos(photo) + 3] = char(file.size() + 2);
    EXPECT_EQ(read(file, &x), -1);
    EXPECT_EQ(read("", &x, tmp.file("none.JPG")), -1);
    // A bad entry is skipped and the walk goes on, here to an IFD0 at the farthest offset.
    photo.ifd0.insert(photo.ifd0.begin(), exif_raw(TAG_MAKE, 13, 1, 0));
    EXPECT_EQ(read(jpeg_file(photo), &x), 0);
    EXPECT_EQ(x.texts(), CAMERA);
}

// Every prefix of a photo and counts that run past the data: the sanitizer builds check that
// nothing is read outside; facts read before the end stay, the thumbnail only when whole.
TEST_F(Exif, CutFilesAndRunawayCountsStayInside) {
    JpegPlan photo = camera_plan("Korvel", "KV-200", 640, 480, small_jpeg());
    std::string file = jpeg_file(photo);
    size_t thumbEnd = file.find(small_jpeg()) + small_jpeg().size();
    for (size_t n = 0; n <= file.size(); ++n) {
        Facts x;
        int rc = read(file.substr(0, n), &x);
        EXPECT_TRUE(rc == 0 || rc == -1) << n;
        EXPECT_EQ(thumb(file.substr(0, n)), n >= thumbEnd ? 0 : -1) << n;
    }
    size_t ifd0 = tiff_pos(photo) + 8;
    file[ifd0] = '\xFF';  // IFD0 count 0x7FFF, little-endian
    file[ifd0 + 1] = '\x7F';
    Facts x;
    EXPECT_EQ(read(file, &x), 0);
    EXPECT_EQ(x.texts()[0], "Korvel");
    EXPECT_EQ(x.texts()[2], "");  // the EXIF directory is looked for past the end
    file[ifd0 + 1] = '\xFF';      // 0xFFFF reads as -1: no entries
    Facts y;
    EXPECT_EQ(read(file, &y), 0);
    EXPECT_EQ(y.texts()[0], "");
}

TEST_F(Exif, ThumbnailIsCopiedWholeOnlyWhenItFitsAndLiesInside) {
    JpegPlan photo = camera_plan("Korvel", "KV", 8, 8, small_jpeg());
    photo.bigEndian = true;
    photo.app0Bytes = 18;
    std::string file = jpeg_file(photo);
    uint32_t n = uint32_t(small_jpeg().size());
    EXPECT_EQ(thumb(file, n - 1), -1);
    EXPECT_TRUE(untouched());

    auto with = [](std::vector<ExifEntry> ifd1) {
        JpegPlan s = camera_plan("Korvel", "KV", 8, 8);
        s.ifd1 = ifd1;
        return jpeg_file(s);
    };
    std::string ifd0Far = file;
    ifd0Far.replace(tiff_pos(photo) + 4, 4, "\x7F\xFF\xFF\xF0");
    JpegPlan longer = photo;
    longer.app0Bytes = 30;
    const std::string cases[] = {
        jpeg_file(camera_plan("Korvel", "KV", 8, 8)),  // no IFD1
        with({exif_long(TAG_THUMB_OFFSET, 0xFFFFFFF0u), exif_long(TAG_THUMB_LENGTH, 100)}),
        with({exif_long(TAG_THUMB_OFFSET, 8), exif_long(TAG_THUMB_LENGTH, 5000)}),
        ifd0Far,
        jpeg_file(longer),
    };
    for (const std::string& bad : cases) {
        EXPECT_EQ(thumb(bad), -1) << &bad - cases;
        EXPECT_TRUE(untouched()) << &bad - cases;
    }
    EXPECT_EQ(thumb(file, n), 0);
    EXPECT_EQ(std::string(buf.begin(), buf.begin() + size), small_jpeg());
    testing::internal::CaptureStderr();
    EXPECT_EQ(exif_read_thumbnail(nullptr, buf.data(), CAPACITY, &size), -1);
    std::string missing = tmp.file("IMG_0002.JPG");
    EXPECT_EQ(exif_read_thumbnail(missing.c_str(), buf.data(), CAPACITY, &size), -1);
    testing::internal::GetCapturedStderr();
}

}  // namespace
}  // namespace korvel

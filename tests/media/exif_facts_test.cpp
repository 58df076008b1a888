// Photo facts: where the APP1 block may sit, byte orders, value forms and cuts, the header
// checks with their exact lines, and files cut or pointing anywhere.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "media/exif.h"
#include "support/jpeg_builder.h"
#include "support/temp_dir.h"

namespace korvel {
namespace {

using namespace testsupport;

struct Facts {
    char maker[32], model[32], width[16], height[16], resUnit[16], colour[16];
    explicit Facts(const char* fill = "") {
        for (char* f : {maker, model, width, height, resUnit, colour}) {
            strcpy(f, fill);
        }
    }
    std::vector<std::string> texts() const {
        return {maker, model, width, height, resUnit, colour};
    }
};

using Texts = std::vector<std::string>;
const Texts KEPT(6, "keep");

class ExifFacts : public ::testing::Test {
protected:
    TempDir tmp;
    std::string out;  // what the reader printed

    int read(const std::string& bytes, Facts* f) {
        std::string path = tmp.file("p.JPG");
        write_file(path, bytes);
        testing::internal::CaptureStdout();
        int rc = exif_read_photo_info(f->maker, f->model, f->width, f->height, f->resUnit,
                                      f->colour, path.c_str());
        out = testing::internal::GetCapturedStdout();
        return rc;
    }
    int parse(const std::string& segment, Facts* f) {
        testing::internal::CaptureStdout();
        int rc = exif_parse_app1(reinterpret_cast<const uint8_t*>(segment.data()),
                                 uint32_t(segment.size()), f->maker, f->model, f->width, f->height,
                                 f->resUnit, f->colour);
        out = testing::internal::GetCapturedStdout();
        return rc;
    }
};

TEST_F(ExifFacts, App1IsFoundOnlyFirstOrAfterAnEighteenByteApp0) {
    const Texts full = {"Korvel", "KV-200 Mark II", "1920", "1080", "2", "1"};
    JpegPlan photo = camera_plan("Korvel", "KV-200 Mark II", 1920, 1080);
    photo.exif[0] = exif_short(TAG_PIXEL_X, 1920);
    struct Case {
        size_t app0;
        bool app1;
        Texts want;
    } cases[] = {{0, true, full}, {18, true, full}, {30, true, KEPT}, {18, false, KEPT}};
    for (const Case& c : cases) {
        photo.app0Bytes = c.app0;
        photo.withApp1 = c.app1;
        Facts f("keep");
        EXPECT_EQ(read(jpeg_file(photo), &f), 0) << c.app0;
        EXPECT_EQ(f.texts(), c.want) << c.app0 << " " << c.app1;
    }
}

TEST_F(ExifFacts, BothByteOrdersGiveTheSameTexts) {
    for (bool be : {false, true}) {
        JpegPlan photo = camera_plan("Korvel", "KV-200", 4000, 3000);
        photo.bigEndian = be;
        photo.exif = {exif_short(TAG_PIXEL_X, 4000), exif_long(TAG_PIXEL_Y, 3000)};
        Facts f;
        EXPECT_EQ(read(jpeg_file(photo), &f), 0);
        EXPECT_EQ(f.texts(), (Texts{"Korvel", "KV-200", "4000", "3000", "2", "1"})) << be;
        EXPECT_EQ(out, "");
    }
}

TEST_F(ExifFacts, ValuesAreReadByTheirTypeAndCutToTheField) {
    const std::string longMake(40, 'M');
    struct Case {
        ExifEntry entry;
        size_t field;  // index in texts()
        std::string want;
    } cases[] = {
        {exif_ascii(TAG_MAKE, "Kov"), 0, "Kov"},  // in the entry itself
        {exif_ascii(TAG_MAKE, longMake), 0, std::string(31, 'M')},
        {exif_ascii(TAG_MODEL, std::string(2000, 'x')), 1, std::string(31, 'x')},
        {exif_ascii(TAG_RES_UNIT, "12345678901234567890"), 4, "123456789012345"},
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
            Facts f;
            EXPECT_EQ(read(jpeg_file(photo), &f), 0);
            EXPECT_EQ(f.texts()[c.field], c.want) << "tag " << c.entry.tag << " be " << be;
        }
    }
}

TEST_F(ExifFacts, BadEntriesAreSkippedAndTheWalkGoesOn) {
    JpegPlan photo = camera_plan("Korvel", "KV-200", 640, 480);
    photo.ifd0.insert(photo.ifd0.begin(), exif_raw(TAG_MAKE, 13, 1, 0));
    photo.ifd0.insert(photo.ifd0.begin() + 2, exif_raw(TAG_MODEL, EXIF_ASCII, 8, 1u << 31));
    Facts f;
    EXPECT_EQ(read(jpeg_file(photo), &f), 0);
    EXPECT_EQ(out, "wrong format type 13 \n");
    EXPECT_EQ(f.texts(), (Texts{"Korvel", "KV-200", "640", "480", "2", "1"}));
}

TEST_F(ExifFacts, HeaderChecksPrintTheirLineAndFillNothing) {
    const std::string good = exif_app1(camera_plan("Korvel", "KV", 8, 8)).substr(2);
    struct Case {
        size_t at;
        std::string bytes;
        bool fails;
        std::string line;
    } cases[] = {
        {2, "Exig", true, "debug: not valid exif head E, x\n"},
        {6, "X", true, "debug: not valid exif head E, x\n"},
        {7, "X", false, ""},  // the second NUL is not looked at
        {8, "IM", true, "debug: not valid endian 73, 77\n"},
        {10, std::string("\x2B\0", 2), true, "debug: not valid fixed byte 43, 0\n"},
        {10, std::string("\0\x2A", 2), true, "debug: not valid fixed byte 0, 42\n"},
        {12, std::string("\x14\0\0\0", 4), true, ""},  // IFD0 at 20
        {12, std::string("\x07\0\0\0", 4), true, ""},
        {12, std::string("\0\0\0\x08", 4), true, ""},  // read little-endian: huge
    };
    for (const Case& c : cases) {
        std::string seg = good;
        seg.replace(c.at, c.bytes.size(), c.bytes);
        Facts f("keep");
        int rc = parse(seg, &f);
        EXPECT_EQ(rc != 0, c.fails) << c.at << " " << c.bytes;
        EXPECT_EQ(out, c.line) << c.at;
        if (c.fails) {
            EXPECT_EQ(f.texts(), KEPT) << c.at;
        }
    }
    Facts f;
    testing::internal::CaptureStdout();
    EXPECT_EQ(
        exif_parse_app1(nullptr, 100, f.maker, f.model, f.width, f.height, f.resUnit, f.colour),
        -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout().rfind("debug: not valid input param ", 0), 0u);
    EXPECT_EQ(parse(good, &f), 0);
    EXPECT_EQ(f.texts(), (Texts{"Korvel", "KV", "8", "8", "2", "1"}));
}

TEST_F(ExifFacts, Ifd0MayStartAnywhereUpToSixteen) {
    JpegPlan photo = camera_plan("Korvel", "KV", 8, 6);
    photo.ifd0Offset = 16;
    Facts f;
    EXPECT_EQ(read(jpeg_file(photo), &f), 0);
    EXPECT_EQ(f.texts(), (Texts{"Korvel", "KV", "8", "6", "2", "1"}));
}

TEST_F(ExifFacts, ImplausibleApp1LengthsAndUnreadableFiles) {
    JpegPlan photo = camera_plan("Korvel", "KV", 8, 8);
    std::string file = jpeg_file(photo);
    std::string plus1 = std::to_string(file.size() + 1);
    for (uint16_t length : {uint16_t(0), uint16_t(1), uint16_t(file.size() + 2)}) {
        std::string bad = file;
        bad[app1_pos(photo) + 2] = char(length >> 8);
        bad[app1_pos(photo) + 3] = char(length & 0xFF);
        Facts f("keep");
        EXPECT_EQ(read(bad, &f), -1);
        EXPECT_EQ(out, "debug: metasize exceed: " + std::to_string(length) + "  " + plus1 + "\n");
        EXPECT_EQ(f.texts(), KEPT);
    }
    Facts f("keep");
    EXPECT_EQ(read("\xFF\xD9 not a jpeg", &f), -1);
    EXPECT_EQ(read("", &f), -1);
    std::string missing = tmp.file("none.JPG");
    testing::internal::CaptureStdout();
    EXPECT_EQ(exif_read_photo_info(f.maker, f.model, f.width, f.height, f.resUnit, f.colour,
                                   missing.c_str()),
              -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "bad open file: " + missing + "\n");
    EXPECT_EQ(f.texts(), KEPT);
}

// Every prefix of a photo, and directories whose counts run past the data: nothing is read
// outside the segment (the sanitizer builds check that), and what was read stays.
TEST_F(ExifFacts, CutFilesAndRunawayCountsStayInside) {
    JpegPlan photo = camera_plan("Korvel", "KV-200", 640, 480, small_jpeg());
    std::string file = jpeg_file(photo);
    for (size_t n = 0; n <= file.size(); ++n) {
        Facts f;
        int rc = read(file.substr(0, n), &f);
        EXPECT_TRUE(rc == 0 || rc == -1) << n;
    }
    std::string seg = exif_app1(photo).substr(2);
    std::string runaway = seg;
    runaway[8 + 8] = '\xFF';  // IFD0 count 0x7FFF, little-endian
    runaway[8 + 9] = '\x7F';
    Facts f;
    EXPECT_EQ(parse(runaway, &f), 0);
    EXPECT_EQ(f.texts()[0], "Korvel");
    EXPECT_EQ(f.texts()[2], "");  // the EXIF directory is looked for past the end
    runaway[8 + 9] = '\xFF';      // 0xFFFF reads as -1: no entries
    Facts g;
    EXPECT_EQ(parse(runaway, &g), 0);
    EXPECT_EQ(g.texts()[0], "");
}

}  // namespace
}  // namespace korvel

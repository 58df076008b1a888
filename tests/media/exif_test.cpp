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

constexpr uint32_t CAPACITY = 122880;
const std::string CAMERA = "0|Korvel|KV-200|640|480|2|1", KEPT = "0|k|k|k|k|k|k";
// camera_plan() files, little-endian: APP1 at 2, TIFF at 12, IFD0's count at 20 and its
// entries from 22 (Make first); with a thumbnail, IFD1's offset and length values at 126, 138.
constexpr size_t TIFF = 12, MAKE = 22, THUMB_OFFSET = 126, THUMB_LENGTH = 138;
const std::string PHOTO = jpeg_file(camera_plan("Korvel", "KV-200", 640, 480));
const std::string THUMBED = jpeg_file(camera_plan("Korvel", "KV-200", 8, 8, small_jpeg()));

std::string patch(std::string file, size_t at, const std::string& bytes) {
    return file.replace(at, bytes.size(), bytes);
}
std::string with_app0(std::string file, size_t bytes) {  // a JFIF APP0 of `bytes` after SOI
    std::string jfif("\xFF\xE0\0\0JFIF\0\x01\x01", 11);
    jfif[3] = char(bytes - 2);
    return file.insert(2, jfif + std::string(bytes - jfif.size(), '\0'));
}

class Exif : public ::testing::Test {
protected:
    TempDir tmp;
    std::string path = tmp.file("p.JPG");
    std::vector<uint8_t> buf = std::vector<uint8_t>(CAPACITY, 0xAA);
    uint32_t size = 7;

    // Return code and the six texts, '|'-joined; the texts are the record's field sizes, so
    // a write past one trips the sanitizers, and start as `fill`.
    std::string facts(const std::string& bytes, const char* fill = "k") {
        char maker[32], model[32], width[16], height[16], resUnit[16], colour[16];
        char* f[6] = {maker, model, width, height, resUnit, colour};
        for (char* field : f) {
            strcpy(field, fill);
        }
        write_file(path, bytes);
        testing::internal::CaptureStdout();  // the reader's debug lines
        std::string s =
            std::to_string(exif_read_photo_info(f[0], f[1], f[2], f[3], f[4], f[5], path.c_str()));
        testing::internal::GetCapturedStdout();
        for (const char* text : f) {
            s += std::string("|") + text;
        }
        return s;
    }
    int thumb(const std::string& bytes, uint32_t capacity = CAPACITY) {
        write_file(path, bytes);
        return exif_read_thumbnail(path.c_str(), buf.data(), capacity, &size);
    }
    bool untouched() const { return size == 7 && buf[0] == 0xAA && buf[CAPACITY - 1] == 0xAA; }
};

TEST_F(Exif, WhereTheBlockSitsAndWhatAFaultSkips) {
    JpegPlan be = camera_plan("Korvel", "KV-200", 640, 480);
    be.bigEndian = true;
    const std::pair<std::string, std::string> cases[] = {
        {PHOTO, CAMERA},
        {with_app0(jpeg_file(be), 18), CAMERA},  // the camera's APP0 is skipped
        {with_app0(PHOTO, 30), KEPT},            // any other is not
        {small_jpeg(), KEPT},                    // no APP1
        {patch(PHOTO, 6, "Exig"), KEPT},         // header, byte order, 42, IFD0 past 16
        {patch(PHOTO, TIFF, "IM"), KEPT},
        {patch(PHOTO, TIFF + 2, "\x2B"), KEPT},
        {patch(PHOTO, TIFF + 4, "\x11"), KEPT},
        {patch(PHOTO, 4, "\x7F"), "-1|k|k|k|k|k|k"},  // APP1 longer than the file
        // A bad entry is skipped and the walk goes on: a value outside the block, a length
        // past 32 bits (DOUBLE x 2^30), an unknown type.
        {patch(PHOTO, MAKE + 8, "\xF8\xFF\xFF\xFF"), "0|k|KV-200|640|480|2|1"},
        {patch(PHOTO, MAKE + 2, std::string("\x0C\0\0\0\0\x40", 6)), "0|k|KV-200|640|480|2|1"},
        {patch(PHOTO, MAKE + 2, "\x0D"), "0|k|KV-200|640|480|2|1"},
        // Runaway IFD0 counts: 0x7FFF runs to the block's end, where the EXIF directory is
        // then looked for; 0xFFFF reads as -1, no entries, and the EXIF walk starts 6 bytes
        // in (here its stride meets the real EXIF entries).
        {patch(PHOTO, 20, "\xFF\x7F"), "0|Korvel|KV-200|k|k|2|1"},
        {patch(PHOTO, 20, "\xFF\xFF"), "0|k|k|640|480|k|k"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(facts(c.first), c.second) << &c - cases;
    }
    // IFD0 at 16, the farthest allowed (8 bytes of padding), and no file or no segment.
    std::string file = jpeg_file({false, {{TAG_RES_UNIT, EXIF_SHORT, 2}}}).insert(20, 8, '\0');
    file[5] += 8;  // the APP1 length
    file[TIFF + 4] = 16;
    EXPECT_EQ(facts(file), "0|k|k|k|k|2|k");
    char f[6][32] = {};
    EXPECT_EQ(exif_read_photo_info(f[0], f[1], f[2], f[3], f[4], f[5], tmp.file("no").c_str()), -1);
    EXPECT_EQ(exif_parse_app1(nullptr, 100, f[0], f[1], f[2], f[3], f[4], f[5]), -1);
}

TEST_F(Exif, ValuesAreReadByTheirTypeAndCutToTheField) {
    const std::pair<ExifEntry, std::string> cases[] = {
        {{TAG_MAKE, EXIF_ASCII, 0, "Kov"}, "0|Kov|||||"},  // in the entry itself: text
        {{TAG_MODEL, EXIF_ASCII, 0, std::string(40, 'x')}, "0||" + std::string(31, 'x') + "||||"},
        {{TAG_RES_UNIT, EXIF_BYTE, 200}, "0|||||200|"},
        {{TAG_RES_UNIT, EXIF_SBYTE, 0xFF}, "0|||||-1|"},
        {{TAG_RES_UNIT, EXIF_SHORT, 65535}, "0|||||65535|"},
        {{TAG_RES_UNIT, EXIF_SSHORT, 0xFFFE}, "0|||||-2|"},
        {{TAG_YCBCR_POSITIONING, EXIF_LONG, 0x80000000u}, "0||||||-2147483648"},
        {{TAG_YCBCR_POSITIONING, EXIF_SLONG, 70000}, "0||||||70000"},
    };
    for (bool be : {false, true}) {
        for (const auto& [entry, want] : cases) {
            EXPECT_EQ(facts(jpeg_file({be, {entry}}), ""), want) << " be " << be;
        }
    }
}

// Only a whole thumbnail that fits and lies inside is copied. Last, every prefix of a photo:
// the sanitizer builds check that neither reader reads outside.
TEST_F(Exif, ThumbnailIsCopiedWholeOnlyWhenItFitsAndLiesInside) {
    JpegPlan be = camera_plan("Korvel", "KV", 8, 8, small_jpeg());
    be.bigEndian = true;
    uint32_t n = uint32_t(small_jpeg().size());
    const std::pair<std::string, uint32_t> cases[] = {
        {THUMBED, n - 1},
        {PHOTO, CAPACITY},  // no IFD1
        {patch(THUMBED, THUMB_OFFSET, "\xF0\xFF\xFF\xFF"), CAPACITY},
        {patch(THUMBED, THUMB_LENGTH, "\x88\x13"), CAPACITY},      // 5000 bytes
        {patch(THUMBED, TIFF + 4, "\xF0\xFF\xFF\x7F"), CAPACITY},  // IFD0 far out
        {with_app0(THUMBED, 30), CAPACITY},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(thumb(c.first, c.second), -1) << &c - cases;
        EXPECT_TRUE(untouched()) << &c - cases;
    }
    for (const std::string& good : {THUMBED, with_app0(jpeg_file(be), 18)}) {
        EXPECT_EQ(thumb(good, n), 0);
        EXPECT_EQ(std::string(buf.begin(), buf.begin() + size), small_jpeg());
    }
    testing::internal::CaptureStderr();
    EXPECT_EQ(exif_read_thumbnail(nullptr, buf.data(), CAPACITY, &size), -1);
    EXPECT_EQ(exif_read_thumbnail(tmp.file("no").c_str(), buf.data(), CAPACITY, &size), -1);
    testing::internal::GetCapturedStderr();
    size_t thumbEnd = THUMBED.find(small_jpeg()) + small_jpeg().size();
    for (size_t cut = 0; cut <= THUMBED.size(); ++cut) {
        std::string rc = facts(THUMBED.substr(0, cut)).substr(0, 2);
        EXPECT_TRUE(rc == "0|" || rc == "-1") << cut;
        EXPECT_EQ(thumb(THUMBED.substr(0, cut)), cut >= thumbEnd ? 0 : -1) << cut;
    }
}

}  // namespace
}  // namespace korvel

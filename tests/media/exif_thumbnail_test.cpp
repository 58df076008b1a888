// The IFD1 thumbnail: copied whole when it fits, refused when it does not fit, is missing or
// points outside the file, with the reader's two parameter lines.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "media/exif.h"
#include "support/jpeg_builder.h"
#include "support/temp_dir.h"

namespace korvel {
namespace {

using namespace testsupport;

constexpr uint32_t CAPACITY = 122880;

class ExifThumbnail : public ::testing::Test {
protected:
    TempDir tmp;
    std::vector<uint8_t> buf = std::vector<uint8_t>(CAPACITY, 0xAA);
    uint32_t size = 7;

    int read(const std::string& bytes, uint32_t capacity = CAPACITY) {
        std::string path = tmp.file("IMG_0001.JPG");
        write_file(path, bytes);
        return exif_read_thumbnail(path.c_str(), buf.data(), capacity, &size);
    }
    std::string got() const { return std::string(buf.begin(), buf.begin() + size); }
    bool untouched() const { return size == 7 && buf[0] == 0xAA && buf[CAPACITY - 1] == 0xAA; }
};

// A 9000-byte thumbnail with every byte value in it.
std::string pattern(size_t n) {
    std::string s(n, '\0');
    for (size_t i = 0; i < n; ++i) {
        s[i] = char(i * 7 + i / 256);
    }
    return s;
}

TEST_F(ExifThumbnail, CopiedWholeInBothByteOrdersWithOrWithoutApp0) {
    const std::string thumb = pattern(9000);
    for (bool be : {false, true}) {
        for (size_t app0 : {size_t(0), size_t(18)}) {
            JpegPlan photo = camera_plan("Korvel", "KV-200", 640, 480, thumb);
            photo.bigEndian = be;
            photo.app0Bytes = app0;
            size = 0;
            ASSERT_EQ(read(jpeg_file(photo)), 0) << be << " " << app0;
            EXPECT_EQ(size, 9000u);
            EXPECT_EQ(got(), thumb);
        }
    }
}

TEST_F(ExifThumbnail, CapacityIsAHardLimit) {
    JpegPlan photo = camera_plan("Korvel", "KV", 8, 8, small_jpeg());
    uint32_t n = uint32_t(small_jpeg().size());
    EXPECT_EQ(read(jpeg_file(photo), n - 1), -1);
    EXPECT_TRUE(untouched());
    EXPECT_EQ(read(jpeg_file(photo), n), 0);
    EXPECT_EQ(got(), small_jpeg());
}

TEST_F(ExifThumbnail, MissingOrAbsurdDirectoriesAreRefused) {
    auto with = [](std::vector<ExifEntry> ifd1) {
        JpegPlan s = camera_plan("Korvel", "KV", 8, 8);
        s.ifd1 = ifd1;
        return jpeg_file(s);
    };
    JpegPlan longer = camera_plan("Korvel", "KV", 8, 8, small_jpeg());
    longer.app0Bytes = 30;
    std::string ifd0Far = jpeg_file(camera_plan("Korvel", "KV", 8, 8, small_jpeg()));
    ifd0Far.replace(tiff_pos(JpegPlan()) + 4, 4, "\xF0\xFF\xFF\x7F");
    struct Case {
        const char* what;
        std::string file;
    } cases[] = {
        {"no IFD1", jpeg_file(camera_plan("Korvel", "KV", 8, 8))},
        {"IFD1 without the thumbnail tags", with({exif_short(TAG_RES_UNIT, 2)})},
        {"offset only", with({exif_long(TAG_THUMB_OFFSET, 8)})},
        {"length only", with({exif_long(TAG_THUMB_LENGTH, 8)})},
        {"offset far outside",
         with({exif_long(TAG_THUMB_OFFSET, 0xFFFFFFF0u), exif_long(TAG_THUMB_LENGTH, 100)})},
        {"length past the end",
         with({exif_long(TAG_THUMB_OFFSET, 8), exif_long(TAG_THUMB_LENGTH, 5000)})},
        {"IFD0 far outside", ifd0Far},
        {"longer APP0", jpeg_file(longer)},
        {"not a JPEG", "GIF89a and more bytes than a header"},
        {"empty", ""},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(read(c.file), -1) << c.what;
        EXPECT_TRUE(untouched()) << c.what;
    }
}

TEST_F(ExifThumbnail, EveryCutOfTheFileIsRefusedUntilTheThumbnailIsWhole) {
    JpegPlan photo = camera_plan("Korvel", "KV", 8, 8, small_jpeg());
    std::string file = jpeg_file(photo);
    size_t thumbEnd = file.find(small_jpeg()) + small_jpeg().size();
    for (size_t n = 0; n <= file.size(); ++n) {
        EXPECT_EQ(read(file.substr(0, n)), n >= thumbEnd ? 0 : -1) << n;
    }
}

TEST_F(ExifThumbnail, BadParametersPrintTheirLine) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(exif_read_thumbnail(nullptr, buf.data(), CAPACITY, &size), -1);
    std::string missing = tmp.file("IMG_0002.JPG");
    EXPECT_EQ(exif_read_thumbnail(missing.c_str(), buf.data(), CAPACITY, &size), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "bad parameter!\nbad open file," + missing + "\n");
    EXPECT_TRUE(untouched());
}

}  // namespace
}  // namespace korvel

// JPEGs that we did not write: ffmpeg makes the image, exiftool writes the EXIF block and a
// thumbnail, and our readers must report what exiftool reads back.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "media/exif.h"
#include "support/shell.h"
#include "support/temp_dir.h"

namespace korvel {
namespace {

using testsupport::on_path;
using testsupport::read_file;
using testsupport::run_command;
using testsupport::TempDir;

// The values exiftool prints for `tags` (one per line, numbers as numbers).
std::vector<std::string> exiftool_values(const std::string& path, const std::string& tags) {
    int status = 0;
    std::string text = run_command("exiftool -n -s -s -s " + tags + " '" + path + "'", &status);
    std::vector<std::string> lines;
    size_t start = 0;
    for (size_t nl; (nl = text.find('\n', start)) != std::string::npos; start = nl + 1) {
        lines.push_back(text.substr(start, nl - start));
    }
    return lines;
}

class ExifTool : public ::testing::Test {
protected:
    TempDir tmp;
    std::string photo = tmp.file("IMG_0001.JPG");

    void SetUp() override {
        if (!on_path("ffmpeg") || !on_path("exiftool")) {
            GTEST_SKIP() << "ffmpeg and exiftool are needed (scripts/deps.sh installs them)";
        }
        std::string thumb = tmp.file("thumb.jpg");
        int status = 0;
        run_command("ffmpeg -v error -y -f lavfi -i testsrc=s=320x240 -frames:v 1 '" + photo +
                        "' && ffmpeg -v error -y -f lavfi -i color=c=blue:s=160x120 -frames:v 1 '" +
                        thumb + "'",
                    &status);
        ASSERT_EQ(status, 0) << "ffmpeg could not make the test images";
    }
    void exiftool(const std::string& args) {
        int status = 0;
        run_command("exiftool -q -overwrite_original " + args + " '" + photo + "'", &status);
        ASSERT_EQ(status, 0) << args;
    }
    std::vector<std::string> ours() {
        char maker[32] = "", model[32] = "", w[16] = "", h[16] = "", res[16] = "", ycc[16] = "";
        EXPECT_EQ(exif_read_photo_info(maker, model, w, h, res, ycc, photo.c_str()), 0);
        return {maker, model, w, h, res, ycc};
    }
};

// Short texts stay inside the entries and the X/Y resolutions are dropped, so exiftool
// leaves no value data between IFD0 and the EXIF directory: the camera's own layout.
TEST_F(ExifTool, CameraLayoutGivesTheSameSixFactsAndThumbnail) {
    exiftool(
        "-Make=KRV -Model=K1 -XResolution= -YResolution= -ResolutionUnit=inches "
        "-YCbCrPositioning=Co-sited -ExifImageWidth=320 -ExifImageHeight=240 "
        "'-ThumbnailImage<=" +
        tmp.file("thumb.jpg") + "'");
    std::vector<std::string> want = exiftool_values(
        photo, "-Make -Model -ExifImageWidth -ExifImageHeight -ResolutionUnit -YCbCrPositioning");
    ASSERT_EQ(want.size(), 6u);
    EXPECT_EQ(ours(), want);

    std::vector<uint8_t> buf(122880);
    uint32_t size = 0;
    ASSERT_EQ(exif_read_thumbnail(photo.c_str(), buf.data(), uint32_t(buf.size()), &size), 0);
    std::string extracted = tmp.file("extracted.jpg");
    int status = 0;
    run_command("exiftool -b -ThumbnailImage '" + photo + "' > '" + extracted + "'", &status);
    EXPECT_EQ(std::string(buf.begin(), buf.begin() + size), read_file(extracted));
}

// Long texts live in exiftool's data area: maker and model still match.
TEST_F(ExifTool, LongMakerAndModelTextsMatch) {
    exiftool("'-Make=Korvel Optical Instruments' '-Model=KV-200 Mark II'");
    std::vector<std::string> want = exiftool_values(photo, "-Make -Model");
    ASSERT_EQ(want.size(), 2u);
    std::vector<std::string> got = ours();
    EXPECT_EQ(got[0], want[0]);
    EXPECT_EQ(got[1], want[1]);
}

}  // namespace
}  // namespace korvel

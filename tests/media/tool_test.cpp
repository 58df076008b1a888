// Files we did not write: ffmpeg makes photos and clips, exiftool writes EXIF blocks, and our
// readers must report what exiftool and ffprobe read back.
#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "media/exif.h"
#include "media/mp4.h"
#include "support/temp_dir.h"

namespace korvel {
namespace {

using namespace testsupport;

// Runs `cmd`, which must succeed, and returns its output.
std::string run(const std::string& cmd) {
    int status = 0;
    std::string out = run_command(cmd + " </dev/null", &status);
    EXPECT_EQ(status, 0) << cmd;
    return out;
}

// Without X/Y resolutions exiftool leaves no value data between IFD0 and the EXIF directory,
// as the camera does.
TEST(Tools, ExiftoolFactsAndThumbnailMatchOurs) {
    ASSERT_TRUE(on_path("ffmpeg") && on_path("exiftool")) << "run scripts/deps.sh";
    TempDir tmp;
    std::string path = tmp.file("IMG_0001.JPG"), photo = "'" + path + "'";
    std::string thumb = tmp.file("thumb.jpg");
    run("ffmpeg -v error -y -f lavfi -i testsrc=s=320x240 -frames:v 1 " + photo +
        " && ffmpeg -v error -y -f lavfi -i color=c=blue:s=160x120 -frames:v 1 '" + thumb + "'");
    run("exiftool -q -overwrite_original -Make=KRV -Model=K1 -XResolution= -YResolution= "
        "-ResolutionUnit=inches -YCbCrPositioning=Co-sited -ExifImageWidth=320 "
        "-ExifImageHeight=240 '-ThumbnailImage<=" +
        thumb + "' " + photo);
    char f[6][32] = {};
    ASSERT_EQ(exif_read_photo_info(f[0], f[1], f[2], f[3], f[4], f[5], path.c_str()), 0);
    EXPECT_EQ(std::string(f[0]) + "\n" + f[1] + "\n" + f[2] + "\n" + f[3] + "\n" + f[4] + "\n" +
                  f[5] + "\n",
              run("exiftool -n -s3 -Make -Model -ExifImageWidth -ExifImageHeight "
                  "-ResolutionUnit -YCbCrPositioning " +
                  photo));
    std::vector<uint8_t> buf(122880);
    uint32_t size = 0;
    ASSERT_EQ(exif_read_thumbnail(path.c_str(), buf.data(), uint32_t(buf.size()), &size), 0);
    EXPECT_EQ(std::string(buf.begin(), buf.begin() + size),
              run("exiftool -b -ThumbnailImage " + photo));
}

// 25 fps, 2 s, an odd size so width and height cannot be swapped unnoticed, and an audio
// track that must not disturb the video facts. Ours: bit rate, frame rate, codec, duration,
// width, height; ffprobe's: width, height, duration.
TEST(Tools, ClipFactsMatchFfprobe) {
    ASSERT_TRUE(on_path("ffmpeg") && on_path("ffprobe")) << "run scripts/deps.sh";
    TempDir tmp;
    const char* clips[][3] = {{"h264.mp4", "libx264", "H264"},
                              {"h264.mov", "libx264", "H264"},
                              {"mpeg4.mp4", "mpeg4", "MPEG-4 "}};
    for (const auto& [file, encoder, codec] : clips) {
        std::string path = "'" + tmp.file(file) + "'";
        run("ffmpeg -v error -f lavfi -i testsrc=size=352x208:rate=25:duration=2 -f lavfi -i "
            "sine=duration=2 -pix_fmt yuv420p -c:a aac -shortest -c:v " +
            std::string(encoder) + " " + path + " 2>&1");
        std::istringstream p(
            run("ffprobe -v error -select_streams v:0 -show_entries "
                "stream=width,height,duration -of default=nw=1:nk=1 " +
                path));
        std::string width, height, duration;
        p >> width >> height >> duration;
        char f[6][16] = {};
        ASSERT_EQ(mp4_read_video_info(f[0], f[1], f[2], f[3], f[4], f[5], tmp.file(file).c_str()),
                  0);
        EXPECT_EQ(f[4] + std::string("x") + f[5], width + "x" + height) << file;
        EXPECT_NEAR(std::atof(f[3]), std::atof(duration.c_str()), 1.0 / 25) << file;
        EXPECT_NEAR(std::atof(f[1]), 25.0, 0.5) << file;
        EXPECT_EQ(std::string(f[2]).rfind(codec, 0), 0u) << file << " codec " << f[2];
        EXPECT_GT(std::atoi(f[0]), 0) << file;
    }
}

}  // namespace
}  // namespace korvel

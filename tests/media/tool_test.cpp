// Files we did not write: ffmpeg makes photos and clips, exiftool writes EXIF blocks, and our
// readers must report what exiftool and ffprobe read back.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "media/exif.h"
#include "media/mp4.h"
#include "support/shell.h"
#include "support/temp_dir.h"

namespace korvel {
namespace {

using namespace testsupport;

std::vector<std::string> lines(const std::string& cmd) {
    int status = 0;
    std::string text = run_command(cmd, &status);
    std::vector<std::string> out;
    for (size_t at = 0, nl; (nl = text.find('\n', at)) != std::string::npos; at = nl + 1) {
        out.push_back(text.substr(at, nl - at));
    }
    return out;
}

void run(const std::string& cmd) {
    int status = 0;
    run_command(cmd + " </dev/null 2>&1", &status);
    ASSERT_EQ(status, 0) << cmd;
}

// Short texts stay in their entries and the X/Y resolutions are dropped, so exiftool leaves
// no value data between IFD0 and the EXIF directory: the camera's layout. Long texts then
// move to the data area, where maker and model must still be found.
TEST(Tools, ExiftoolFactsAndThumbnailMatchOurs) {
    ASSERT_TRUE(on_path("ffmpeg") && on_path("exiftool")) << "run scripts/deps.sh";
    TempDir tmp;
    std::string photo = tmp.file("IMG_0001.JPG"), thumb = tmp.file("thumb.jpg");
    run("ffmpeg -v error -y -f lavfi -i testsrc=s=320x240 -frames:v 1 '" + photo +
        "' && ffmpeg -v error -y -f lavfi -i color=c=blue:s=160x120 -frames:v 1 '" + thumb + "'");
    std::string tool = "exiftool -q -overwrite_original ";
    run(tool +
        "-Make=KRV -Model=K1 -XResolution= -YResolution= -ResolutionUnit=inches "
        "-YCbCrPositioning=Co-sited -ExifImageWidth=320 -ExifImageHeight=240 "
        "'-ThumbnailImage<=" +
        thumb + "' '" + photo + "'");
    auto ours = [&photo] {
        char f[6][32] = {};
        EXPECT_EQ(exif_read_photo_info(f[0], f[1], f[2], f[3], f[4], f[5], photo.c_str()), 0);
        return std::vector<std::string>(std::begin(f), std::end(f));
    };
    EXPECT_EQ(ours(), lines("exiftool -n -s3 -Make -Model -ExifImageWidth -ExifImageHeight "
                            "-ResolutionUnit -YCbCrPositioning '" +
                            photo + "'"));
    std::vector<uint8_t> buf(122880);
    uint32_t size = 0;
    ASSERT_EQ(exif_read_thumbnail(photo.c_str(), buf.data(), uint32_t(buf.size()), &size), 0);
    run("exiftool -b -ThumbnailImage '" + photo + "' > '" + thumb + "'");
    EXPECT_EQ(std::string(buf.begin(), buf.begin() + size), read_file(thumb));

    run(tool + "'-Make=Korvel Optical Instruments' '-Model=KV-200 Mark II' '" + photo + "'");
    std::vector<std::string> want = lines("exiftool -s3 -Make -Model '" + photo + "'");
    ASSERT_EQ(want.size(), 2u);
    std::vector<std::string> got = ours();
    EXPECT_EQ(std::vector<std::string>(got.begin(), got.begin() + 2), want);
}

struct Clip {
    const char *name, *file, *encoder, *codecPrefix;
};
class Clips : public ::testing::TestWithParam<Clip> {};

// 25 fps, 2 s, an odd size so width and height cannot be swapped unnoticed, and an audio
// track that must not disturb the video facts.
TEST_P(Clips, FactsMatchFfprobe) {
    const Clip& c = GetParam();
    ASSERT_TRUE(on_path("ffmpeg") && on_path("ffprobe")) << "run scripts/deps.sh";
    if (run_command("ffmpeg -hide_banner -encoders 2>/dev/null")
            .find(std::string(" ") + c.encoder + " ") == std::string::npos) {
        GTEST_SKIP() << "this ffmpeg has no " << c.encoder << " encoder";
    }
    TempDir tmp;
    std::string path = tmp.file(c.file);
    run("ffmpeg -v error -f lavfi -i testsrc=size=352x208:rate=25:duration=2 -f lavfi -i "
        "sine=duration=2 -c:v " +
        std::string(c.encoder) + " -pix_fmt yuv420p -c:a aac -shortest '" + path + "'");
    std::vector<std::string> p = lines(
        "ffprobe -v error -select_streams v:0 -show_entries stream=width,height,duration "
        "-of default=nw=1:nk=1 '" +
        path + "'");
    ASSERT_EQ(p.size(), 3u);
    char f[6][16] = {};
    ASSERT_EQ(mp4_read_video_info(f[0], f[1], f[2], f[3], f[4], f[5], path.c_str()), 0);
    EXPECT_EQ(std::vector<std::string>({f[4], f[5]}), std::vector<std::string>({p[0], p[1]}));
    EXPECT_NEAR(std::atof(f[3]), std::atof(p[2].c_str()), 1.0 / 25) << "duration";
    EXPECT_NEAR(std::atof(f[1]), 25.0, 0.5) << "frame rate";
    EXPECT_EQ(std::string(f[2]).rfind(c.codecPrefix, 0), 0u) << "codec " << f[2];
    EXPECT_GT(std::atoi(f[0]), 0) << "bit rate";
}

INSTANTIATE_TEST_SUITE_P(Encoders, Clips,
                         ::testing::Values(Clip{"H264Mp4", "h264.mp4", "libx264", "H264"},
                                           Clip{"H264Mov", "h264.mov", "libx264", "H264"},
                                           Clip{"Mpeg4Visual", "mpeg4.mp4", "mpeg4", "MPEG-4 "}),
                         [](const testing::TestParamInfo<Clip>& i) { return i.param.name; });

}  // namespace
}  // namespace korvel

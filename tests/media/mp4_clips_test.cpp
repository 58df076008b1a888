// Real clips made by ffmpeg at test time: our facts must agree with what ffprobe reports.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <sstream>
#include <string>

#include "media/mp4.h"
#include "support/shell.h"
#include "support/temp_dir.h"

namespace korvel {
namespace {

using testsupport::TempDir;

using testsupport::on_path;
using testsupport::run_command;

bool has_encoder(const std::string& encoder) {
    int status = 0;
    std::string list = run_command("ffmpeg -hide_banner -encoders 2>/dev/null", &status);
    return list.find(" " + encoder + " ") != std::string::npos;
}

// "key=value" lines of ffprobe's first video stream.
std::map<std::string, std::string> probe(const std::string& path) {
    int status = 0;
    std::string text = run_command(
        "ffprobe -v error -select_streams v:0 -show_entries "
        "stream=width,height,duration,r_frame_rate -of default=nw=1 '" +
            path + "'",
        &status);
    std::map<std::string, std::string> fields;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        size_t eq = line.find('=');
        if (eq != std::string::npos) {
            fields[line.substr(0, eq)] = line.substr(eq + 1);
        }
    }
    return fields;
}

struct Clip {
    const char* name;
    const char* file;
    const char* encoder;
    const char* codecPrefix;  // what our codec text must start with
};

class Mp4Clips : public ::testing::TestWithParam<Clip> {};

TEST_P(Mp4Clips, FactsMatchFfprobe) {
    const Clip& c = GetParam();
    ASSERT_TRUE(on_path("ffmpeg") && on_path("ffprobe"))
        << "ffmpeg/ffprobe not on PATH (scripts/deps.sh installs them)";
    if (!has_encoder(c.encoder)) {
        GTEST_SKIP() << "this ffmpeg has no " << c.encoder << " encoder";
    }
    TempDir tmp;
    std::string path = tmp.file(c.file);
    // 25 fps, 2 s, odd size so width and height cannot be swapped unnoticed, plus an audio
    // track that must not disturb the video facts.
    int status = 0;
    run_command(
        "ffmpeg -v error -f lavfi -i testsrc=size=352x208:rate=25:duration=2 -f lavfi -i "
        "sine=duration=2 -c:v " +
            std::string(c.encoder) + " -pix_fmt yuv420p -c:a aac -shortest '" + path +
            "' </dev/null 2>&1",
        &status);
    ASSERT_EQ(status, 0) << "ffmpeg could not make " << c.file;
    std::map<std::string, std::string> p = probe(path);

    char f[6][16] = {};
    ASSERT_EQ(mp4_read_video_info(f[0], f[1], f[2], f[3], f[4], f[5], path.c_str()), 0);
    EXPECT_EQ(std::string(f[4]), p["width"]);
    EXPECT_EQ(std::string(f[5]), p["height"]);
    EXPECT_NEAR(std::atof(f[3]), std::atof(p["duration"].c_str()), 1.0 / 25) << "duration";
    EXPECT_NEAR(std::atof(f[1]), 25.0, 0.5) << "frame rate";
    EXPECT_EQ(std::string(f[2]).rfind(c.codecPrefix, 0), 0u) << "codec " << f[2];
    EXPECT_GT(std::atoi(f[0]), 0) << "bit rate";
}

INSTANTIATE_TEST_SUITE_P(Encoders, Mp4Clips,
                         ::testing::Values(Clip{"H264Mp4", "h264.mp4", "libx264", "H264"},
                                           Clip{"H264Mov", "h264.mov", "libx264", "H264"},
                                           Clip{"Mpeg4Visual", "mpeg4.mp4", "mpeg4", "MPEG-4 "}),
                         [](const ::testing::TestParamInfo<Clip>& param) {
                             return std::string(param.param.name);
                         });

}  // namespace
}  // namespace korvel

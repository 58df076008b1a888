// The six video-fact texts written for the media record, from files built box by box.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "media/mp4.h"
#include "support/mp4_builder.h"
#include "support/temp_dir.h"

namespace korvel {
namespace {

using namespace testsupport;

struct Facts {
    int rc = 0;
    std::string bitRate, frameRate, codec, duration, width, height;
};

class Mp4Facts : public ::testing::Test {
protected:
    TempDir tmp;

    Facts read_bytes(const std::string& bytes) {
        std::string path = tmp.file("clip.mp4");
        write_file(path, bytes);
        return read_path(path.c_str());
    }

    static Facts read_path(const char* path) {
        char f[6][16] = {};
        Facts out;
        out.rc = mp4_read_video_info(f[0], f[1], f[2], f[3], f[4], f[5], path);
        out.bitRate = f[0];
        out.frameRate = f[1];
        out.codec = f[2];
        out.duration = f[3];
        out.width = f[4];
        out.height = f[5];
        return out;
    }

    Facts read_track(const TrackPlan& plan) { return read_bytes(mp4_file(moov(trak(plan)))); }
};

TEST_F(Mp4Facts, H264ClipGivesAllSixTexts) {
    TrackPlan t;
    t.timescale = 30000;
    t.duration = 315000;
    t.entries = visual_entry("avc1", 4096, 2160, avcc(100, 51));
    std::vector<uint32_t> sizes(315, 83333);
    sizes.back() = 83438;  // 26 250 000 bytes in 10.5 s: exactly 20 Mbit/s
    t.sizes = stsz(0, 315, sizes);
    Facts f = read_track(t);
    EXPECT_EQ(f.rc, 0);
    EXPECT_EQ(f.bitRate, "20000");
    EXPECT_EQ(f.frameRate, "30.000000");
    EXPECT_EQ(f.codec, "H264");
    EXPECT_EQ(f.duration, "10.500000");
    EXPECT_EQ(f.width, "4096");
    EXPECT_EQ(f.height, "2160");
}

TEST_F(Mp4Facts, BitRateIsFlooredThenRoundedToKbit) {
    struct Case {
        uint32_t bytes;
        uint64_t duration;
        const char* text;
    } cases[] = {
        {1874, 10000, "1"},         // 1499.2 bit/s
        {1875, 10000, "2"},         // 1500 bit/s rounds up
        {18749, 100000, "1"},       // 1499.92 floors to 1499
        {600000000, 1, "2521530"},  // 4.8e12 bit/s wraps at 32 bits
    };
    for (const Case& c : cases) {
        TrackPlan t;
        t.duration = c.duration;
        t.sizes = stsz(c.bytes, 1);
        EXPECT_EQ(read_track(t).bitRate, c.text) << c.bytes << " bytes";
    }
}

TEST_F(Mp4Facts, NtscFrameRateAndDuration) {
    TrackPlan t;
    t.timescale = 30000;
    t.duration = 300300;
    t.sizes = stsz(1000, 300);
    Facts f = read_track(t);
    EXPECT_EQ(f.frameRate, "29.970030");
    EXPECT_EQ(f.duration, "10.010000");
    EXPECT_EQ(f.bitRate, "240");  // 239 760 bit/s
}

TEST_F(Mp4Facts, CodecTextByEntry) {
    const std::string vos01 = std::string("\x00\x00\x01\xB0\x01", 5);
    const std::string vos07 = std::string("\x00\x00\x01\xB0\x07", 5);
    const std::string vosB1 = std::string("\x00\x00\x01\xB0\xB1", 5);
    const std::string vos51 = std::string("\x00\x00\x01\xB0\x51", 5);
    auto mp4v = [](const std::string& esdsBox) { return visual_entry("mp4v", 640, 480, esdsBox); };
    struct Case {
        const char* what;
        std::string entries;
        std::string iodsBox;
        const char* codec;
    } cases[] = {
        {"mpeg4 simple", mp4v(esds(0x20, 0, vos01)), "", "MPEG-4 Simple @"},
        {"mpeg4 unknown profile", mp4v(esds(0x20, 0, vos07)), "", "MPEG-4 Unknown "},
        {"mpeg4 ace", mp4v(esds(0x20, 0, vosB1)), "", "MPEG-4 Adv Codi"},
        {"double blank", mp4v(esds(0x20, 0, vos51)), "", "MPEG-4  Scalabl"},
        {"iods wins", mp4v(esds(0x20, 0, vos01)), iods(0x21), "MPEG-4 Core @ L"},
        {"iods other tag", mp4v(esds(0x20, 0, vos01)), iods(0x21, 0x02), "MPEG-4 Simple @"},
        {"iods url", mp4v(esds(0x20, 0, vos01)), iods(0x21, 0x10, true), "MPEG-4 Unknown "},
        {"mpeg1", mp4v(esds(0x6A, 0)), "", "MPEG-1"},
        {"mpeg2 422", mp4v(esds(0x65, 0)), "", "MPEG-2 4:2:2"},
        {"unlisted type", mp4v(esds(0x99, 0)), "", "Unknown"},
        {"no esds", mp4v(""), "", "Unknown"},
        {"encv avc", visual_entry("encv", 1280, 720, avcc(77, 31) + sinf("avc1")), "", "H264"},
        {"encv no frma", visual_entry("encv", 1280, 720, avcc(77, 31) + sinf(nullptr)), "",
         "Unknown - no me"},
        {"encv mp4v", visual_entry("encv", 640, 480, sinf("mp4v") + esds(0x20, 0, vos01)), "",
         "MPEG-4 Simple @"},
        {"encv s263", visual_entry("encv", 176, 144, sinf("s263")), "", "H.263"},
        {"avc1 no avcC", visual_entry("avc1", 640, 480), "", "H.264 - profile"},
        {"s263", visual_entry("s263", 176, 144), "", "H.263"},
        {"other name", visual_entry("hvc1", 640, 480), "", "hvc1"},
        {"two entries",
         visual_entry("avc1", 640, 480, avcc(100, 40)) +
             visual_entry("avc1", 640, 480, avcc(100, 40)),
         "", "Unknown - no me"},
    };
    for (const Case& c : cases) {
        TrackPlan t;
        t.entries = c.entries;
        Facts f = read_bytes(mp4_file(moov(c.iodsBox + trak(t))));
        EXPECT_EQ(f.rc, 0) << c.what;
        EXPECT_EQ(f.codec, c.codec) << c.what;
    }
}

TEST_F(Mp4Facts, OnlyVideoTracksWriteAndTheLastOneWins) {
    TrackPlan first, audio, last;
    first.entries = visual_entry("avc1", 1920, 1080, avcc(100, 40));
    audio.id = 2;
    audio.handler = "soun";
    audio.entries = sound_entry("mp4a", 2, 16, esds(0x40, 128000));
    last.id = 3;
    last.entries = visual_entry("avc1", 640, 360, avcc(66, 30));
    Facts f = read_bytes(mp4_file(moov(trak(first) + trak(last) + trak(audio))));
    EXPECT_EQ(f.rc, 0);
    EXPECT_EQ(f.width, "640");
    EXPECT_EQ(f.height, "360");

    Facts audioOnly = read_bytes(mp4_file(moov(trak(audio))));
    EXPECT_EQ(audioOnly.rc, 0);
    for (const std::string& s : {audioOnly.bitRate, audioOnly.frameRate, audioOnly.codec,
                                 audioOnly.duration, audioOnly.width, audioOnly.height}) {
        EXPECT_EQ(s, "");
    }
    EXPECT_EQ(read_bytes(mp4_file(moov(""))).rc, 0);  // no tracks at all
}

TEST_F(Mp4Facts, FailuresPrintTheirMessageAndLeaveFieldsAlone) {
    std::string jpeg = tmp.file("photo.jpg");
    write_file(jpeg, std::string("\xFF\xD8\xFF\xE0\x00\x10JFIF\x00", 11));
    char f[6][16] = {"a", "b", "c", "d", "e", "f"};
    struct Case {
        const char* path;
        int nullField;
        const char* message;
    } cases[] = {
        {jpeg.c_str(), -1, "MP4Read error!\n"},
        {nullptr, -1, "mp4FileName is wrong!\n"},
        {jpeg.c_str(), 3, "bad mp4 demuxer parameter!\n"},
    };
    for (const Case& c : cases) {
        char* p[6];
        for (int i = 0; i < 6; ++i) {
            p[i] = i == c.nullField ? nullptr : f[i];
        }
        ::testing::internal::CaptureStderr();
        int rc = mp4_read_video_info(p[0], p[1], p[2], p[3], p[4], p[5], c.path);
        EXPECT_EQ(::testing::internal::GetCapturedStderr(), c.message);
        EXPECT_EQ(rc, -1);
        EXPECT_STREQ(f[2], "c");
        EXPECT_STREQ(f[4], "e");
    }
}

}  // namespace
}  // namespace korvel

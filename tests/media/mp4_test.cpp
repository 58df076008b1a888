// MP4 box reader and the six video-fact texts, from files built box by box.
#include "media/mp4.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "media/mp4_reader.h"
#include "support/mp4_builder.h"
#include "support/temp_dir.h"

namespace korvel {
namespace {

using namespace testsupport;

const std::string VOS03 = std::string("\x00\x00\x01\xB0\x03", 5);

TrackPlan track(uint32_t timescale, uint64_t duration, const std::string& sizes = "",
                const std::string& entries = "") {
    TrackPlan t;
    t.timescale = timescale;
    t.duration = duration;
    t.sizes = sizes;
    t.entries = entries;
    return t;
}
TrackPlan mp4v_track(const std::string& esdsBox) {  // 25 fps, 10 s, 1 Mbit/s
    return track(25, 250, stsz(5000, 250), visual_entry("mp4v", 640, 480, esdsBox));
}
const char* const PLAIN = "0|1|0.100000|H264|10.000000|640|480";  // trak({}) as record texts

std::string clip(const TrackPlan& t) {
    return mp4_file(moov(trak(t)));
}

class Mp4 : public ::testing::Test {
protected:
    TempDir tmp;
    int serial = 0;

    std::string put(const std::string& bytes) {
        std::string path = tmp.file("f" + std::to_string(serial++) + ".mp4");
        write_file(path, bytes);
        return path;
    }
    Mp4Handle open(const std::string& bytes) { return Mp4Handle(mp4_open(put(bytes).c_str())); }
    // Return code and the six texts of the media record, '|'-joined.
    std::string facts(const std::string& bytes) {
        char f[6][16] = {};
        std::string path = put(bytes);
        std::string s =
            std::to_string(mp4_read_video_info(f[0], f[1], f[2], f[3], f[4], f[5], path.c_str()));
        for (const char* text : f) {
            s += std::string("|") + text;
        }
        return s;
    }
};

TEST_F(Mp4, RefusesMalformedFiles) {
    std::string m = moov(trak({}));
    const std::string cases[] = {
        "",
        ftyp() + mdat(100),                     // no moov
        ftyp() + box_to_end("mdat", "xx") + m,  // size-0 mdat hides the moov
        (ftyp() + m).substr(0, ftyp().size() + m.size() - 10),
        ftyp() + be32(4) + "free" + m,             // box smaller than its header
        ftyp() + be32(1) + "free" + be64(12) + m,  // 64-bit size under 16
        clip(track(1000, 10000, stsz(0, 5, {1, 2, 3}))),
        clip(track(1000, 10000, "", visual_entry("avc1", 640, 480, avcc(100, 40, false)))),
        box("ftyp", "isom") + m,
        ftyp() + box("moov", trak({})),  // no mvhd
        clip(mp4v_track(full_box("esds", 0, "\x03\x7F\x00\x01\x00"))),
    };
    for (const std::string& bytes : cases) {
        EXPECT_EQ(open(bytes), nullptr) << &bytes - cases;
    }
    EXPECT_EQ(mp4_open(nullptr), nullptr);
    // A sparse file whose moov is just over the memory cap: refused before it is read.
    std::string huge = put(be32(uint32_t(MP4_MOOV_CAP + 16)) + "moov" + mvhd());
    ASSERT_EQ(truncate(huge.c_str(), off_t(MP4_MOOV_CAP + 16)), 0);
    EXPECT_EQ(mp4_open(huge.c_str()), nullptr);
}

TEST_F(Mp4, DurationConversionPastExactIntegers) {
    uint64_t ms = 0;
    EXPECT_TRUE(mp4_rescale((1ull << 54) + 1, 90000, 1000, &ms));
    EXPECT_EQ(ms, 200159983438689u);  // by double, rounded half up; integers give ...688
    EXPECT_TRUE(mp4_rescale(UINT64_MAX, 1, 1000, &ms));
    EXPECT_EQ(ms, UINT64_MAX);  // saturates
}

// Bit rate and visual profile of one track: tables, stated rates, the iods and the config.
TEST_F(Mp4, BitRateAndProfileSources) {
    TrackPlan pcm = track(44100, 441000, stsz(1, 441000), sound_entry("twos", 2, 16));
    TrackPlan wave = track(44100, 441344, stsz(300, 431),
                           sound_entry("mp4a", 2, 16, box("wave", esds(0x40, 96000))));
    pcm.handler = wave.handler = "soun";
    std::string mpeg4 = esds(0x20, 0, VOS03);
    struct Case {
        TrackPlan plan;
        std::string iodsBox;
        uint32_t bitRate;
        uint8_t profile;
    } cases[] = {
        {track(1000, 1000, stz2(16, {300, 500, 700})), "", 12000, 0},
        {track(1000, 1000, stz2(4, {3, 5, 7})), "", 120, 0},  // summed as sizes, not bytes
        {pcm, "", 1411200, 0},                                // counts frames
        {wave, "", 103367, 0},  // esds inside wave is not a stated rate
        {track(1000, 1, stsz(600000000, 1)), "", 2521530368u, 0},  // wraps at 32 bits
        {mp4v_track(esds(0x20, 2000000, VOS03)), "", 2000000, 0x03},
        {mp4v_track(mpeg4), "", 1000000, 0x03},  // zero in esds: computed
        {mp4v_track(mpeg4), iods(0xFE), 1000000, 0xFE},
        {mp4v_track(mpeg4), iods(0x01, 0x10, true), 1000000, 0x00},  // url flag
        {mp4v_track(mpeg4), iods(0x01, 0x02), 1000000, 0x03},        // another tag
        {mp4v_track(esds(0x20, 0, std::string("\x09\x00\x00\x01\xB0", 5))), "", 1000000, 0},
        {mp4v_track(esds(0x20, 0, std::string("\x09\x00\x00\x01\xB0\x08", 6))), "", 1000000, 8},
        {mp4v_track(esds(0x20, 0)), "", 1000000, 0x00},
        {mp4v_track(esds(0x6A, 0, VOS03)), "", 1000000, 0x00},  // not MPEG-4 Visual
    };
    for (const Case& c : cases) {
        Mp4Handle f = open(mp4_file(moov(c.iodsBox + trak(c.plan))));
        ASSERT_NE(f, nullptr) << &c - cases;
        EXPECT_EQ(mp4_track_bit_rate(f.get(), 1), c.bitRate) << &c - cases;
        EXPECT_EQ(mp4_video_profile_level(f.get(), 1), c.profile) << &c - cases;
    }
    EXPECT_EQ(mp4_esds_object_type(open(clip(wave)).get(), 1), 0x40);
}

TEST_F(Mp4, RecordTexts) {
    std::vector<uint32_t> sizes(315, 83333);
    sizes.back() = 83438;  // 26 250 000 bytes in 10.5 s: exactly 20 Mbit/s
    TrackPlan hevc = track(1000, 10000, "", visual_entry("hvc1", 1, 1)), audio, last, v1;
    hevc.tkhdWidth = 0x0780FFFF;  // opaque entry: size from the tkhd
    hevc.tkhdHeight = 0x04380000;
    TrackPlan small = track(1000, 10000, "", visual_entry("avc1", 320, 240, avcc(66, 30)));
    TrackPlan broken = small, headless = small;
    broken.id = headless.id = 7;
    broken.withStco = false;
    headless.withTkhd = false;
    v1 = track(90000, 90ull << 32);  // 64-bit duration
    v1.mdhdVersion = 1;
    audio.id = 2;
    audio.handler = "soun";
    audio.entries = sound_entry("mp4a", 2, 16, esds(0x40, 128000));
    last.id = 3;
    last.entries = visual_entry("avc1", 640, 360, avcc(66, 30));
    auto mp4v = [](const char* level) {
        return visual_entry("mp4v", 640, 480, esds(0x20, 0, std::string("\0\0\1\xB0", 4) + level));
    };
    std::string inner = mvhd() + trak({});
    struct Case {
        std::string file;
        const char* texts;
    } cases[] = {
        {clip(track(30000, 315000, stsz(0, 315, sizes),
                    visual_entry("avc1", 4096, 2160, avcc(100, 51)))),
         "0|20000|30.000000|H264|10.500000|4096|2160"},
        {clip(track(30000, 300300, stsz(1000, 300))), "0|240|29.970030|H264|10.010000|640|480"},
        {clip(track(1000, 10000, stsz(1874, 1))), PLAIN},                                  // 1499
        {clip(track(1000, 10000, stsz(1875, 1))), "0|2|0.100000|H264|10.000000|640|480"},  // 1500
        {clip(track(1000, 100000, stsz(18749, 1))), "0|1|0.010000|H264|100.000000|640|480"},
        {clip(track(90000, 945089)), "0|1|0.095238|H264|10.500000|640|480"},  // 10 500 ms, floored
        {clip(track(90000, 0xFFFFFFFF)), "0|0|0.000021|H264|47721.858000|640|480"},
        {clip(v1), "0|0|0.000000|H264|4294967.296000|640|480"},
        {clip(track(0, 10000)), "0|0|0.000000|H264|184467440737095|640|480"},
        {clip(track(1000, 10000, "", visual_entry("avc1", 640, 480))),
         "0|1|0.100000|H.264 - profile|10.000000|640|480"},
        {clip(track(1000, 10000, "", visual_entry("encv", 1280, 720, avcc(77, 31) + sinf("avc1")))),
         "0|1|0.100000|H264|10.000000|1280|720"},
        {clip(track(25, 250, "", mp4v("\x01"))), "0|1|0.100000|MPEG-4 Simple @|10.000000|640|480"},
        {clip(track(25, 250, "", mp4v("\x07"))), "0|1|0.100000|MPEG-4 Unknown |10.000000|640|480"},
        {clip(hevc), "0|1|0.100000|hvc1|10.000000|1920|1080"},
        {clip(audio), "0||||||"},
        {mp4_file(moov(trak({}) + trak(last) + trak(audio))),  // the last video track wins
         "0|1|0.100000|H264|10.000000|640|360"},
        {mp4_file(moov(trak({}) + trak(small))), PLAIN},  // a second id 1 names the first
        {mp4_file(moov(trak({}) + trak(broken) + trak(headless))), PLAIN},  // tracks left out
        // Layouts that change nothing: 64-bit and size-0 boxes, a moov declared too long, and
        // a malformed box the reader never descends into.
        {ftyp() + be32(uint32_t(inner.size() + 1008)) + "moov" + inner, PLAIN},
        {ftyp() + box64("moov", inner), PLAIN},
        {ftyp() + box_to_end("moov", inner), PLAIN},
        {ftyp() + box("moov", inner + box("udta", "\x00\x00")), PLAIN},
        {ftyp() + moov(trak(track(1000, 0, stsz(0, 0)))) +
             box("moof", full_box("mfhd", 0, be32(1))),
         "0|0|0.000000|H264|0.000000|640|480"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(facts(c.file), c.texts) << &c - cases;
    }
}

// A file that is no MP4 or a missing argument fails without touching the texts.
TEST_F(Mp4, FailuresLeaveTheTextsAlone) {
    std::string jpeg = put(std::string("\xFF\xD8\xFF\xE0\x00\x10JFIF\x00", 11));
    char f[6][16] = {"a", "b", "c", "d", "e", "f"};
    testing::internal::CaptureStderr();
    for (const char* path : {jpeg.c_str(), static_cast<const char*>(nullptr)}) {
        EXPECT_EQ(mp4_read_video_info(f[0], f[1], f[2], f[3], f[4], f[5], path), -1);
    }
    EXPECT_EQ(mp4_read_video_info(f[0], f[1], f[2], nullptr, f[4], f[5], jpeg.c_str()), -1);
    testing::internal::GetCapturedStderr();
    EXPECT_STREQ(f[2], "c");
}

}  // namespace
}  // namespace korvel

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

TrackPlan mp4v_track(const std::string& esdsBox) {  // 25 fps, 10 s, 1 Mbit/s
    return {25, 250, stsz(5000, 250), visual_entry("mp4v", 640, 480, esdsBox)};
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
    // Return code and the six texts of the media record, '|'-joined; they start as "k".
    std::string facts(const std::string& bytes) {
        char f[6][16] = {"k", "k", "k", "k", "k", "k"};
        std::string path = put(bytes);
        std::string s =
            std::to_string(mp4_read_video_info(f[0], f[1], f[2], f[3], f[4], f[5], path.c_str()));
        for (const char* text : f) {
            s += std::string("|") + text;
        }
        return s;
    }
};

// A refused file, or a missing argument, leaves the texts alone.
TEST_F(Mp4, RefusesMalformedFiles) {
    std::string m = moov(trak({}));
    const std::string cases[] = {
        "",
        ftyp() + box("mdat", "xx"),       // no moov
        ftyp() + be32(0) + "mdatxx" + m,  // size-0 mdat hides the moov
        (ftyp() + m).substr(0, ftyp().size() + m.size() - 10),
        ftyp() + be32(4) + "free" + m,             // box smaller than its header
        ftyp() + be32(1) + "free" + be64(12) + m,  // 64-bit size under 16
        clip({1000, 10000, stsz(0, 5, {1, 2, 3})}),
        clip({1000, 10000, "", visual_entry("avc1", 640, 480, avcc(100, 40, false))}),
        box("ftyp", "isom") + m,
        ftyp() + box("moov", trak({})),  // no mvhd
        clip(mp4v_track(full_box("esds", 0, "\x03\x7F\x00\x01\x00"))),
    };
    testing::internal::CaptureStderr();
    for (const std::string& bytes : cases) {
        EXPECT_EQ(facts(bytes), "-1|k|k|k|k|k|k") << &bytes - cases;
    }
    char f[6][16] = {"a", "b", "c", "d", "e", "f"};
    EXPECT_EQ(mp4_read_video_info(f[0], f[1], f[2], f[3], f[4], f[5], nullptr), -1);
    EXPECT_EQ(mp4_read_video_info(f[0], f[1], f[2], nullptr, f[4], f[5], put(clip({})).c_str()),
              -1);
    testing::internal::GetCapturedStderr();
    EXPECT_STREQ(f[2], "c");
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
    auto stz2 = [](const char* p, size_t n) { return full_box("stz2", 0, std::string(p, n)); };
    TrackPlan pcm = {44100, 441000, stsz(1, 441000), sound_entry("twos", 2, 16), "soun"};
    TrackPlan wave = {44100, 441344, stsz(300, 431),
                      sound_entry("mp4a", 2, 16, box("wave", esds(0x40, 96000))), "soun"};
    std::string mpeg4 = esds(0x20, 0, VOS03);
    struct Case {
        TrackPlan plan;
        const char* iods;  // the initial object descriptor: tag, length, ids, flags, profiles
        uint32_t bitRate;
        uint8_t profile;
    } cases[] = {
        // stz2 with 16-bit sizes 300, 500, 700, and 4-bit ones 3, 5, 7 (summed as sizes, not as
        // the bytes they share)
        {{1000, 1000, stz2("\0\0\0\x10\0\0\0\x03\x01\x2C\x01\xF4\x02\xBC", 14)}, "", 12000, 0},
        {{1000, 1000, stz2("\0\0\0\x04\0\0\0\x03\x35\x70", 10)}, "", 120, 0},
        {pcm, "", 1411200, 0},  // counts frames
        {wave, "", 103367, 0},  // esds inside wave is not a stated rate
        {{1000, 1, stsz(600000000, 1)}, "", 2521530368u, 0},  // wraps at 32 bits
        {mp4v_track(esds(0x20, 2000000, VOS03)), "", 2000000, 0x03},
        {mp4v_track(mpeg4), "", 1000000, 0x03},  // zero in esds: computed
        {mp4v_track(mpeg4), "\x10\x07\0\x4F\xFF\xFF\xFF\xFE\xFF", 1000000, 0xFE},
        {mp4v_track(mpeg4), "\x10\x07\0\x3F\x04\x61://", 1000000, 0x00},           // url flag
        {mp4v_track(mpeg4), "\x02\x07\0\x4F\xFF\xFF\xFF\x01\xFF", 1000000, 0x03},  // other tag
        {mp4v_track(esds(0x20, 0, std::string("\x09\x00\x00\x01\xB0", 5))), "", 1000000, 0},
        {mp4v_track(esds(0x20, 0, std::string("\x09\x00\x00\x01\xB0\x08", 6))), "", 1000000, 8},
        {mp4v_track(esds(0x20, 0)), "", 1000000, 0x00},
        {mp4v_track(esds(0x6A, 0, VOS03)), "", 1000000, 0x00},  // not MPEG-4 Visual
    };
    for (const Case& c : cases) {
        std::string iods = *c.iods ? full_box("iods", 0, std::string(c.iods, 9)) : "";
        Mp4Handle f = open(mp4_file(moov(iods + trak(c.plan))));
        ASSERT_NE(f, nullptr) << &c - cases;
        EXPECT_EQ(mp4_track_bit_rate(f.get(), 1), c.bitRate) << &c - cases;
        EXPECT_EQ(mp4_video_profile_level(f.get(), 1), c.profile) << &c - cases;
    }
    EXPECT_EQ(mp4_esds_object_type(open(clip(wave)).get(), 1), 0x40);
}

TEST_F(Mp4, RecordTexts) {
    std::vector<uint32_t> sizes(315, 83333);
    sizes.back() = 83438;  // 26 250 000 bytes in 10.5 s: exactly 20 Mbit/s
    TrackPlan hevc = {1000, 10000, "", visual_entry("hvc1", 1, 1)};  // opaque: size from the tkhd
    hevc.tkhdWidth = 0x0780FFFF;
    hevc.tkhdHeight = 0x04380000;
    TrackPlan audio = {1000, 10000, "", sound_entry("mp4a", 2, 16, esds(0x40, 128000)), "soun", 2};
    TrackPlan last = {1000, 10000, "", visual_entry("avc1", 640, 360, avcc(66, 30)), "vide", 3};
    std::string small = visual_entry("avc1", 320, 240, avcc(66, 30));
    TrackPlan broken = {1000, 10000, "", small, "vide", 7, 0, 0, true, false};  // no stco
    TrackPlan headless = {1000, 10000, "", small, "vide", 7, 0, 0, false};      // no tkhd
    auto mp4v = [](const char* level) {
        return visual_entry("mp4v", 640, 480, esds(0x20, 0, std::string("\0\0\1\xB0", 4) + level));
    };
    std::string inner = mvhd() + trak({});
    const std::pair<std::string, const char*> cases[] = {
        {clip(
             {30000, 315000, stsz(0, 315, sizes), visual_entry("avc1", 4096, 2160, avcc(100, 51))}),
         "0|20000|30.000000|H264|10.500000|4096|2160"},
        {clip({30000, 300300, stsz(1000, 300)}), "0|240|29.970030|H264|10.010000|640|480"},
        {clip({1000, 10000, stsz(1874, 1)}), PLAIN},                                  // 1499
        {clip({1000, 10000, stsz(1875, 1)}), "0|2|0.100000|H264|10.000000|640|480"},  // 1500
        {clip({1000, 100000, stsz(18749, 1)}), "0|1|0.010000|H264|100.000000|640|480"},
        {clip({90000, 945089}), "0|1|0.095238|H264|10.500000|640|480"},  // 10 500 ms, floored
        {clip({90000, 0xFFFFFFFF}), "0|0|0.000021|H264|47721.858000|640|480"},
        {clip({90000, 90ull << 32}), "0|0|0.000000|H264|4294967.296000|640|480"},  // mdhd v1
        {clip({0, 10000}), "0|0|0.000000|H264|184467440737095|640|480"},
        {clip({1000, 10000, "", visual_entry("avc1", 640, 480)}),
         "0|1|0.100000|H.264 - profile|10.000000|640|480"},
        {clip({1000, 10000, "",
               visual_entry("encv", 1280, 720, avcc(77, 31) + box("sinf", box("frma", "avc1")))}),
         "0|1|0.100000|H264|10.000000|1280|720"},
        {clip({25, 250, "", mp4v("\x01")}), "0|1|0.100000|MPEG-4 Simple @|10.000000|640|480"},
        {clip({25, 250, "", mp4v("\x07")}), "0|1|0.100000|MPEG-4 Unknown |10.000000|640|480"},
        {clip(hevc), "0|1|0.100000|hvc1|10.000000|1920|1080"},
        {clip(audio), "0|k|k|k|k|k|k"},
        {mp4_file(moov(trak({}) + trak(last) + trak(audio))),  // the last video track wins
         "0|1|0.100000|H264|10.000000|640|360"},
        // A second id 1 names the first; tracks without an stco or a tkhd are left out.
        {mp4_file(moov(trak({}) + trak({1000, 10000, "", small}))), PLAIN},
        {mp4_file(moov(trak({}) + trak(broken) + trak(headless))), PLAIN},
        // Layouts that change nothing: 64-bit and size-0 boxes, a moov declared too long, and
        // a malformed box the reader never descends into.
        {ftyp() + be32(uint32_t(inner.size() + 1008)) + "moov" + inner, PLAIN},
        {ftyp() + be32(1) + "moov" + be64(inner.size() + 16) + inner, PLAIN},
        {ftyp() + be32(0) + "moov" + inner, PLAIN},
        {ftyp() + box("moov", inner + box("udta", "\x00\x00")), PLAIN},
        {clip({1000, 0, stsz(0, 0)}), "0|0|0.000000|H264|0.000000|640|480"},  // no time
    };
    for (const auto& c : cases) {
        EXPECT_EQ(facts(c.first), c.second) << &c - cases;
    }
}

}  // namespace
}  // namespace korvel

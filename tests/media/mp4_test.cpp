// MP4 box reader and the six video-fact texts, from files built box by box: refused and
// tolerated layouts, conversions, bit-rate, profile and codec sources, track lists.
#include "media/mp4.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
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
    TrackPlan t;
    t.timescale = 25;
    t.duration = 250;
    t.entries = visual_entry("mp4v", 640, 480, esdsBox);
    t.sizes = stsz(5000, 250);
    return t;
}

TrackPlan track(uint32_t timescale, uint64_t duration, const std::string& sizes) {
    TrackPlan t;
    t.timescale = timescale;
    t.duration = duration;
    t.sizes = sizes;
    return t;
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
    Mp4Handle open_track(const TrackPlan& t, const std::string& iodsBox = "") {
        return open(mp4_file(moov(iodsBox + trak(t))));
    }
    // The six texts of the media record, '|'-joined, after the return code.
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
    // Everything the facts step asks of track index 0, as one comparable line.
    static std::string summary(const Mp4File* f) {
        if (f == nullptr) {
            return "not opened";
        }
        uint32_t id = mp4_track_id(f, 0);
        const char *type = mp4_track_type(f, id), *name = mp4_media_data_name(f, id);
        uint8_t profile = 0, level = 0;
        bool avc = mp4_h264_profile_level(f, id, &profile, &level);
        char line[256];
        snprintf(line, sizeof line, "n=%u id=%u %s %s avc=%d/%u/%u ms=%llu br=%u %ux%u fps=%.6f",
                 mp4_track_count(f), id, type ? type : "-", name ? name : "-", avc, profile, level,
                 (unsigned long long)mp4_convert_from_track_duration(
                     f, id, mp4_track_duration(f, id), 1000),
                 mp4_track_bit_rate(f, id), mp4_video_width(f, id), mp4_video_height(f, id),
                 mp4_video_frame_rate(f, id));
        return line;
    }
};

TEST_F(Mp4, RefusesMalformedFiles) {
    TrackPlan plain, shortTable, noPps;
    std::string m = moov(trak(plain));
    shortTable.sizes = stsz(0, 5, {1, 2, 3});
    noPps.entries = visual_entry("avc1", 640, 480, avcc(100, 40, false));
    std::string esdsOverrun = full_box("esds", 0, "\x03\x7F\x00\x01\x00");
    const std::string cases[] = {
        std::string("\xFF\xD8\xFF\xE0\x00\x10JFIF\x00\x01\x01", 13),
        "",
        ftyp() + mdat(100),                     // no moov
        ftyp() + box_to_end("mdat", "xx") + m,  // size-0 mdat hides the moov
        (ftyp() + m).substr(0, ftyp().size() + m.size() - 10),
        ftyp() + be32(4) + "free" + m,             // box smaller than its header
        ftyp() + be32(1) + "free" + be64(12) + m,  // 64-bit size under 16
        ftyp() + be32(20) + "uuid" + std::string(12, 'u') + m,
        mp4_file(moov(trak(shortTable))),
        mp4_file(moov(trak(noPps))),
        box("ftyp", "isom") + m,
        ftyp() + box("moov", trak(plain)),  // no mvhd
        ftyp() + box("moov", full_box("mvhd", 0, std::string(40, '\0'))),
        mp4_file(moov(trak(mp4v_track(esdsOverrun)))),
    };
    for (const std::string& bytes : cases) {
        EXPECT_EQ(open(bytes), nullptr) << &bytes - cases;
    }
    EXPECT_EQ(mp4_open(tmp.file("missing.mp4").c_str()), nullptr);
    EXPECT_EQ(mp4_open(tmp.path().c_str()), nullptr);
    EXPECT_EQ(mp4_open(nullptr), nullptr);
    // A sparse file whose moov is just over the memory cap: refused before it is read.
    std::string huge = put(be32(uint32_t(MP4_MOOV_CAP + 16)) + "moov" + mvhd());
    ASSERT_EQ(truncate(huge.c_str(), off_t(MP4_MOOV_CAP + 16)), 0);
    EXPECT_EQ(mp4_open(huge.c_str()), nullptr);
}

TEST_F(Mp4, LayoutVariantsGiveIdenticalFacts) {
    TrackPlan t;
    std::string m = moov(trak(t)), mvhdTrak = mvhd() + trak(t);
    ASSERT_EQ(summary(open(ftyp() + m + mdat(64)).get()),
              "n=1 id=1 vide avc1 avc=1/100/40 ms=10000 br=800 640x480 fps=0.100000");
    std::vector<std::string> cases = {
        ftyp() + mdat(64) + m,
        ftyp() + box64("mdat", "data") + m,
        ftyp() + m + box_to_end("mdat", "rest of the file"),
        ftyp() + m + be32(100000) + "mdat" + "only this",  // mdat cut short
        ftyp() + box("wide", "") + box("uuid", std::string(20, 'u')) + m,
        m + mdat(64),
        ftyp("qt  ") + m,
        ftyp() + be32(uint32_t(m.size() + 1000)) + m.substr(4),  // moov declared too long
        ftyp() + m + "abc",
        ftyp() + box64("moov", mvhdTrak),
        ftyp() + box_to_end("moov", mvhdTrak),
        ftyp() + box("moov", mvhdTrak + box_to_end("free", "xyz")),
        ftyp() + box("moov", mvhdTrak + box("udta", "\x00\x00")),  // malformed, never decoded
    };
    for (HdlrName form : {HdlrName::Counted, HdlrName::Unterminated, HdlrName::Absent}) {
        TrackPlan named;
        named.hdlrName = form;
        cases.push_back(ftyp() + moov(trak(named)));
    }
    for (size_t i = 0; i < cases.size(); ++i) {
        EXPECT_EQ(summary(open(cases[i]).get()), summary(open(ftyp() + m).get())) << i;
    }
}

TEST_F(Mp4, DurationConversionAndFrameRate) {
    struct Case {
        uint64_t t;
        uint32_t from;
        uint64_t want;
    } cases[] = {
        {945089, 90000, 10500},                      // floors
        {0xFFFFFFFFull, 90000, 47721858},            // full 32-bit duration
        {(1ull << 54), 90000, 200159983438688},      // last exact integer case
        {(1ull << 54) + 1, 90000, 200159983438689},  // double, rounded half up
        {UINT64_MAX, 1000, UINT64_MAX},              // same scale: unchanged
        {UINT64_MAX, 1, UINT64_MAX},                 // saturates
    };
    for (const Case& c : cases) {
        uint64_t got = 0;
        EXPECT_TRUE(mp4_rescale(c.t, c.from, 1000, &got));
        EXPECT_EQ(got, c.want) << c.t << " at " << c.from;
    }
    uint64_t untouched = 7;
    EXPECT_FALSE(mp4_rescale(10, 0, 1000, &untouched));
    EXPECT_EQ(untouched, 7u);
    EXPECT_EQ(summary(open_track(track(0, 10000, "")).get()),
              "n=1 id=1 vide avc1 avc=1/100/40 ms=18446744073709551615 br=0 640x480 fps=0.000000");
    TrackPlan v1 = track(90000, (1ull << 54) + 1, "");
    v1.mdhdVersion = 1;
    Mp4Handle f = open_track(v1);
    EXPECT_EQ(mp4_convert_from_track_duration(f.get(), 1, mp4_track_duration(f.get(), 1), 1000),
              200159983438689u);
    // 300 / 10010 * 1000, not 300 * 1000 / 10010 (which ends ...997).
    f = open_track(track(30000, 300300, stsz(1000, 300)));
    EXPECT_EQ(mp4_video_frame_rate(f.get(), 1), 29.970029970029973);
}

TEST_F(Mp4, BitRateSources) {
    TrackPlan pcm = track(44100, 441000, stsz(1, 441000)), wave = track(44100, 441344, "");
    pcm.handler = wave.handler = "soun";
    pcm.entries = sound_entry("twos", 2, 16);
    wave.entries = sound_entry("mp4a", 2, 16, box("wave", esds(0x40, 96000)));
    wave.sizes = stsz(300, 431);
    struct Case {
        const char* what;
        TrackPlan plan;
        uint32_t bitRate;
    } cases[] = {
        {"stz2 16-bit", track(1000, 1000, stz2(16, {300, 500, 700})), 12000},
        {"stz2 8-bit", track(1000, 1000, stz2(8, {30, 50, 70})), 1200},
        // 4-bit fields are summed as sizes (3+5+7), not as the bytes that pack them.
        {"stz2 4-bit", track(1000, 1000, stz2(4, {3, 5, 7})), 120},
        {"stsz before stz2", track(1000, 1000, stsz(100, 1) + stz2(8, {1})), 800},
        {"pcm counts frames", pcm, 1411200},
        {"stated in esds", mp4v_track(esds(0x20, 2000000, VOS03)), 2000000},
        {"zero in esds is computed", mp4v_track(esds(0x20, 0, VOS03)), 1000000},
        {"esds inside wave is not a stated rate", wave, 103367},
        {"wraps at 32 bits", track(1000, 1, stsz(600000000, 1)), 2521530368u},
    };
    for (const Case& c : cases) {
        Mp4Handle f = open_track(c.plan);
        ASSERT_NE(f, nullptr) << c.what;
        EXPECT_EQ(mp4_track_bit_rate(f.get(), 1), c.bitRate) << c.what;
    }
    EXPECT_EQ(mp4_esds_object_type(open_track(wave).get(), 1), 0x40);
}

TEST_F(Mp4, VisualProfileLevelSources) {
    std::string mpeg4 = esds(0x20, 0, VOS03);
    struct Case {
        const char* what;
        std::string esdsBox, iodsBox;
        uint8_t want;
    } cases[] = {
        {"start code in config", mpeg4, "", 0x03},
        {"iods value as stored", mpeg4, iods(0xFE), 0xFE},
        {"iods with url", mpeg4, iods(0x01, 0x10, true), 0x00},
        {"iods of another tag", mpeg4, iods(0x01, 0x02), 0x03},
        {"start code at the end", esds(0x20, 0, std::string("\x09\x00\x00\x01\xB0", 5)), "", 0},
        {"start code after a byte", esds(0x20, 0, std::string("\x09\x00\x00\x01\xB0\x08", 6)), "",
         0x08},
        {"no decoder info", esds(0x20, 0), "", 0x00},
        {"not mpeg-4 visual", esds(0x6A, 0, VOS03), "", 0x00},
    };
    for (const Case& c : cases) {
        Mp4Handle f = open_track(mp4v_track(c.esdsBox), c.iodsBox);
        ASSERT_NE(f, nullptr) << c.what;
        EXPECT_EQ(mp4_video_profile_level(f.get(), 1), c.want) << c.what;
    }
}

TEST_F(Mp4, SampleEntriesAndTrackLists) {
    TrackPlan encv, hevc, two, dup, broken, good, zero;
    encv.entries = visual_entry("encv", 1280, 720, avcc(77, 31) + sinf(nullptr) + sinf("avc1"));
    hevc.entries = visual_entry("hvc1", 1, 1, avcc(1, 1));  // opaque: size from the tkhd
    hevc.tkhdWidth = 0x0780FFFF;
    hevc.tkhdHeight = 0x04380000;
    two.entries = visual_entry("avc1", 640, 480, avcc(100, 40)) + visual_entry("mp4v", 320, 240);
    std::string tail = " ms=10000 br=800 ";
    EXPECT_EQ(summary(open_track(encv).get()),
              "n=1 id=1 vide encv avc=1/77/31" + tail + "1280x720 fps=0.100000");
    EXPECT_EQ(summary(open_track(hevc).get()),
              "n=1 id=1 vide hvc1 avc=0/0/0" + tail + "1920x1080 fps=0.100000");
    EXPECT_EQ(summary(open_track(two).get()),
              "n=1 id=1 vide - avc=1/100/40" + tail + "640x480 fps=0.100000");
    char fmt[8] = "xxxxxxx";
    EXPECT_FALSE(mp4_media_original_format(open_track(encv).get(), 1, fmt, 8));  // first sinf
    encv.entries = visual_entry("encv", 1280, 720, sinf("avc1"));
    Mp4Handle f = open_track(encv);
    EXPECT_FALSE(mp4_media_original_format(f.get(), 1, fmt, 4));  // too short: untouched
    EXPECT_TRUE(mp4_media_original_format(f.get(), 1, fmt, sizeof fmt));
    EXPECT_EQ(std::string(fmt, 8), std::string("avc1\0xx\0", 8));

    dup.entries = visual_entry("avc1", 320, 240, avcc(66, 30));
    f = open(mp4_file(moov(trak(good) + trak(dup))));
    ASSERT_EQ(mp4_track_count(f.get()), 2u);
    EXPECT_EQ(mp4_video_width(f.get(), mp4_track_id(f.get(), 1)), 640);  // the first with id 1
    EXPECT_EQ(mp4_track_id(f.get(), 2), MP4_INVALID_TRACK_ID);
    broken.id = 7;
    broken.withStco = false;
    TrackPlan headless = broken;
    headless.withStco = true;
    headless.withTkhd = false;
    good.id = 2;
    f = open(mp4_file(moov(trak(broken) + trak(headless) + trak(good))));
    ASSERT_EQ(mp4_track_count(f.get()), 1u);
    EXPECT_EQ(mp4_track_id(f.get(), 0), 2u);
    EXPECT_EQ(mp4_track_type(f.get(), 7), nullptr);
    EXPECT_EQ(mp4_track_duration(f.get(), 7), MP4_INVALID_DURATION);
    zero.id = 0;  // counted and typed, but names no track for the rest
    f = open_track(zero);
    EXPECT_STREQ(mp4_track_type(f.get(), 0), "vide");
    EXPECT_EQ(mp4_media_data_name(f.get(), 0), nullptr);
    EXPECT_EQ(mp4_video_width(f.get(), 0), 0);
    EXPECT_EQ(mp4_convert_from_track_duration(f.get(), 0, 5000, 1000), 5000u);  // its timescale
    TrackPlan fragmented = track(1000, 0, stsz(0, 0));
    f = open(ftyp() + moov(trak(fragmented)) + box("moof", full_box("mfhd", 0, be32(1))));
    EXPECT_EQ(summary(f.get()), "n=1 id=1 vide avc1 avc=1/100/40 ms=0 br=0 640x480 fps=0.000000");
}

TEST_F(Mp4, RecordTextsAreRoundedAndCut) {
    std::vector<uint32_t> sizes(315, 83333);
    sizes.back() = 83438;  // 26 250 000 bytes in 10.5 s: exactly 20 Mbit/s
    TrackPlan k4 = track(30000, 315000, stsz(0, 315, sizes));
    k4.entries = visual_entry("avc1", 4096, 2160, avcc(100, 51));
    struct Case {
        TrackPlan plan;
        const char* texts;
    } cases[] = {
        {k4, "0|20000|30.000000|H264|10.500000|4096|2160"},
        {track(30000, 300300, stsz(1000, 300)), "0|240|29.970030|H264|10.010000|640|480"},
        {track(1000, 10000, stsz(1874, 1)), "0|1|0.100000|H264|10.000000|640|480"},  // 1499.2
        {track(1000, 10000, stsz(1875, 1)), "0|2|0.100000|H264|10.000000|640|480"},  // 1500
        {track(1000, 100000, stsz(18749, 1)), "0|1|0.010000|H264|100.000000|640|480"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(facts(mp4_file(moov(trak(c.plan)))), c.texts);
    }
}

TEST_F(Mp4, CodecTextByEntry) {
    auto mp4v = [](uint8_t type, const char* dsi) {
        return visual_entry("mp4v", 640, 480, esds(type, 0, std::string("\0\0\1\xB0", 4) + dsi));
    };
    struct Case {
        std::string entries, iodsBox;
        const char* codec;
    } cases[] = {
        {mp4v(0x20, "\x01"), "", "MPEG-4 Simple @"},
        {mp4v(0x20, "\x07"), "", "MPEG-4 Unknown "},
        {mp4v(0x20, "\x51"), "", "MPEG-4  Scalabl"},  // the table's double blank
        {mp4v(0x20, "\x01"), iods(0x21), "MPEG-4 Core @ L"},
        {mp4v(0x6A, ""), "", "MPEG-1"},
        {mp4v(0x65, ""), "", "MPEG-2 4:2:2"},
        {mp4v(0x99, ""), "", "Unknown"},
        {visual_entry("encv", 1280, 720, avcc(77, 31) + sinf("avc1")), "", "H264"},
        {visual_entry("encv", 1280, 720, avcc(77, 31) + sinf(nullptr)), "", "Unknown - no me"},
        {visual_entry("encv", 640, 480, sinf("mp4v") + esds(0x20, 0, VOS03)), "",
         "MPEG-4 Simple @"},
        {visual_entry("encv", 176, 144, sinf("s263")), "", "H.263"},
        {visual_entry("avc1", 640, 480), "", "H.264 - profile"},
        {visual_entry("s263", 176, 144), "", "H.263"},
        {visual_entry("hvc1", 640, 480), "", "hvc1"},
        {visual_entry("avc1", 640, 480, avcc(1, 1)) + visual_entry("avc1", 640, 480), "",
         "Unknown - no me"},
    };
    for (const Case& c : cases) {
        TrackPlan t;
        t.entries = c.entries;
        std::string s = facts(mp4_file(moov(c.iodsBox + trak(t))));
        EXPECT_EQ(s.rfind("0|", 0), 0u) << s;
        EXPECT_NE(s.find(std::string("|") + c.codec + "|"), std::string::npos) << s;
    }
}

TEST_F(Mp4, OnlyVideoTracksWriteAndFailuresPrintTheirLine) {
    TrackPlan first, audio, last;
    first.entries = visual_entry("avc1", 1920, 1080, avcc(100, 40));
    audio.id = 2;
    audio.handler = "soun";
    audio.entries = sound_entry("mp4a", 2, 16, esds(0x40, 128000));
    last.id = 3;
    last.entries = visual_entry("avc1", 640, 360, avcc(66, 30));
    EXPECT_EQ(facts(mp4_file(moov(trak(first) + trak(last) + trak(audio)))),
              "0|1|0.100000|H264|10.000000|640|360");  // the last video track wins
    EXPECT_EQ(facts(mp4_file(moov(trak(audio)))), "0||||||");
    EXPECT_EQ(facts(mp4_file(moov(""))), "0||||||");
    std::string jpeg = put(std::string("\xFF\xD8\xFF\xE0\x00\x10JFIF\x00", 11));
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
        testing::internal::CaptureStderr();
        EXPECT_EQ(mp4_read_video_info(p[0], p[1], p[2], p[3], p[4], p[5], c.path), -1);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), c.message);
        EXPECT_STREQ(f[2], "c");
    }
}

}  // namespace
}  // namespace korvel

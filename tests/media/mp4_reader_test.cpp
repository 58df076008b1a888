// The box reader's answers, call by call, for well-formed, odd and malformed files.
#include "media/mp4_reader.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "support/mp4_builder.h"
#include "support/temp_dir.h"

namespace korvel {
namespace {

using namespace testsupport;

const std::string VOS03 = std::string("\x00\x00\x01\xB0\x03", 5);

class Mp4Reader : public ::testing::Test {
protected:
    TempDir tmp;
    int serial = 0;

    Mp4Handle open_bytes(const std::string& bytes) {
        std::string path = tmp.file("f" + std::to_string(serial++) + ".mp4");
        write_file(path, bytes);
        return Mp4Handle(mp4_open(path.c_str()));
    }

    Mp4Handle open_track(const TrackPlan& plan, const std::string& moovExtra = "") {
        return open_bytes(mp4_file(moov(moovExtra + trak(plan))));
    }

    // Everything the facts step asks of track index 0, as one comparable line.
    static std::string summary(const Mp4File* f) {
        if (f == nullptr) {
            return "not opened";
        }
        uint32_t id = mp4_track_id(f, 0);
        const char* type = mp4_track_type(f, id);
        const char* name = mp4_media_data_name(f, id);
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

    static TrackPlan mp4v_track(const std::string& esdsBox) {
        TrackPlan t;
        t.timescale = 25;
        t.duration = 250;
        t.entries = visual_entry("mp4v", 640, 480, esdsBox);
        t.sizes = stsz(5000, 250);
        return t;
    }
};

TEST_F(Mp4Reader, RefusesMalformedFiles) {
    TrackPlan plain;
    std::string m = moov(trak(plain));
    TrackPlan shortTable, noPps;
    shortTable.sizes = stsz(0, 5, {1, 2, 3});
    noPps.entries = visual_entry("avc1", 640, 480, avcc(100, 40, false));
    struct Case {
        const char* what;
        std::string bytes;
    } cases[] = {
        {"jpeg", std::string("\xFF\xD8\xFF\xE0\x00\x10JFIF\x00\x01\x01", 13)},
        {"empty", ""},
        {"ftyp and mdat only", ftyp() + mdat(100)},
        {"size-0 mdat before moov", ftyp() + box_to_end("mdat", "xx") + m},
        {"moov cut by 10 bytes", (ftyp() + m).substr(0, ftyp().size() + m.size() - 10)},
        {"box of size 4", ftyp() + be32(4) + "free" + m},
        {"64-bit size under 16", ftyp() + be32(1) + "free" + be64(12) + m},
        {"uuid shorter than its header", ftyp() + be32(20) + "uuid" + std::string(12, 'u') + m},
        {"stsz table short", mp4_file(moov(trak(shortTable)))},
        {"avcC without PPS", mp4_file(moov(trak(noPps)))},
        {"ftyp payload of 4", box("ftyp", "isom") + m},
        {"moov without mvhd", ftyp() + box("moov", trak(plain))},
        {"short mvhd", ftyp() + box("moov", full_box("mvhd", 0, std::string(40, '\0')))},
        {"esds descriptor overruns",
         mp4_file(moov(trak(mp4v_track(full_box("esds", 0, "\x03\x7F\x00\x01\x00")))))},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(open_bytes(c.bytes), nullptr) << c.what;
    }
    EXPECT_EQ(mp4_open(tmp.file("missing.mp4").c_str()), nullptr);
    EXPECT_EQ(mp4_open(tmp.path().c_str()), nullptr);
    EXPECT_EQ(mp4_open(nullptr), nullptr);
}

TEST_F(Mp4Reader, RefusesAMoovLargerThanTheCap) {
    // A sparse file whose first box is a moov just over the cap: refused before reading it.
    std::string path = tmp.file("huge.mp4");
    write_file(path, be32(uint32_t(MP4_MOOV_CAP + 16)) + "moov" + mvhd());
    ASSERT_EQ(truncate(path.c_str(), off_t(MP4_MOOV_CAP + 16)), 0);
    EXPECT_EQ(mp4_open(path.c_str()), nullptr);
}

TEST_F(Mp4Reader, LayoutVariantsGiveIdenticalFacts) {
    TrackPlan t;
    std::string m = moov(trak(t));
    const std::string base = summary(open_bytes(ftyp() + m + mdat(64)).get());
    ASSERT_EQ(base, "n=1 id=1 vide avc1 avc=1/100/40 ms=10000 br=800 640x480 fps=0.100000");
    std::string mvhdTrak = mvhd() + trak(t);
    auto with_name = [&t](HdlrName form) {
        TrackPlan named = t;
        named.hdlrName = form;
        return ftyp() + moov(trak(named));
    };
    struct Case {
        const char* what;
        std::string bytes;
    } cases[] = {
        {"moov after mdat", ftyp() + mdat(64) + m},
        {"64-bit mdat", ftyp() + box64("mdat", "data") + m},
        {"size-0 mdat after moov", ftyp() + m + box_to_end("mdat", "rest of the file")},
        {"mdat cut short", ftyp() + m + be32(100000) + "mdat" + "only this"},
        {"unknown and uuid boxes",
         ftyp() + box("wide", "") + box("uuid", std::string(20, 'u')) + m},
        {"no ftyp", m + mdat(64)},
        {"quicktime brand", ftyp("qt  ") + m},
        {"moov 1000 bytes too long", ftyp() + be32(uint32_t(m.size() + 1000)) + m.substr(4)},
        {"stray trailing bytes", ftyp() + m + "abc"},
        {"64-bit moov", ftyp() + box64("moov", mvhdTrak)},
        {"size-0 moov", ftyp() + box_to_end("moov", mvhdTrak)},
        {"size-0 box inside moov", ftyp() + box("moov", mvhdTrak + box_to_end("free", "xyz"))},
        {"counted hdlr name", with_name(HdlrName::Counted)},
        {"unterminated hdlr name", with_name(HdlrName::Unterminated)},
        {"no hdlr name", with_name(HdlrName::Absent)},
        {"malformed box we never decode", ftyp() + box("moov", mvhdTrak + box("udta", "\x00\x00"))},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(summary(open_bytes(c.bytes).get()), base) << c.what;
    }
}

TEST_F(Mp4Reader, DurationConversion) {
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

    TrackPlan zero, v1;
    zero.timescale = 0;
    Mp4Handle f = open_track(zero);
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(mp4_track_duration(f.get(), 1), 10000u);
    EXPECT_EQ(mp4_convert_from_track_duration(f.get(), 1, 10000, 1000), MP4_INVALID_DURATION);
    EXPECT_EQ(mp4_track_bit_rate(f.get(), 1), 0u);
    EXPECT_EQ(mp4_video_frame_rate(f.get(), 1), 0.0);
    v1.mdhdVersion = 1;
    v1.timescale = 90000;
    v1.duration = (1ull << 54) + 1;
    f = open_track(v1);
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(mp4_convert_from_track_duration(f.get(), 1, mp4_track_duration(f.get(), 1), 1000),
              200159983438689u);
}

TEST_F(Mp4Reader, BitRateSources) {
    TrackPlan stz16, stz8, stz4, both, pcm, stated, unstated, wave;
    for (TrackPlan* one_second : {&stz16, &stz8, &stz4, &both}) {
        one_second->duration = 1000;
    }
    stz16.sizes = stz2(16, {300, 500, 700});
    stz8.sizes = stz2(8, {30, 50, 70});
    stz4.sizes = stz2(4, {3, 5, 7});
    both.sizes = stsz(100, 1) + stz2(8, {1});
    pcm.handler = "soun";
    pcm.entries = sound_entry("twos", 2, 16);
    pcm.timescale = 44100;
    pcm.duration = 441000;
    pcm.sizes = stsz(1, 441000);
    stated = mp4v_track(esds(0x20, 2000000, VOS03));
    unstated = mp4v_track(esds(0x20, 0, VOS03));
    wave.handler = "soun";
    wave.entries = sound_entry("mp4a", 2, 16, box("wave", esds(0x40, 96000)));
    wave.timescale = 44100;
    wave.duration = 441344;
    wave.sizes = stsz(300, 431);
    struct Case {
        const char* what;
        const TrackPlan& plan;
        uint32_t bitRate;
    } cases[] = {
        {"stz2 16-bit", stz16, 12000},
        {"stz2 8-bit", stz8, 1200},
        // 4-bit fields are summed as sizes (3+5+7), not as the bytes that pack them.
        {"stz2 4-bit", stz4, 120},
        {"stsz before stz2", both, 800},
        {"pcm counts frames", pcm, 1411200},
        {"stated in esds", stated, 2000000},
        {"zero in esds is computed", unstated, 1000000},
        {"esds inside wave is not a stated rate", wave, 103367},
    };
    for (const Case& c : cases) {
        Mp4Handle f = open_track(c.plan);
        ASSERT_NE(f, nullptr) << c.what;
        EXPECT_EQ(mp4_track_bit_rate(f.get(), 1), c.bitRate) << c.what;
    }
    Mp4Handle f = open_track(wave);
    EXPECT_EQ(mp4_esds_object_type(f.get(), 1), 0x40);
    f = open_track(unstated);
    EXPECT_EQ(mp4_video_frame_rate(f.get(), 1), 25.0);
}

TEST_F(Mp4Reader, VisualProfileLevelSources) {
    std::string mpeg4 = esds(0x20, 0, VOS03);
    struct Case {
        const char* what;
        std::string esdsBox;
        std::string iodsBox;
        uint8_t want;
    } cases[] = {
        {"start code in config", mpeg4, "", 0x03},
        {"iods value as stored", mpeg4, iods(0xFE), 0xFE},
        {"iods with url", mpeg4, iods(0x01, 0x10, true), 0x00},
        {"iods of another tag", mpeg4, iods(0x01, 0x02), 0x03},
        {"start code at the very end", esds(0x20, 0, std::string("\x09\x00\x00\x01\xB0", 5)), "",
         0x00},
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

TEST_F(Mp4Reader, SampleEntryFacts) {
    TrackPlan encv, bare, hevc, twoEntries;
    encv.entries = visual_entry("encv", 1280, 720, avcc(77, 31) + sinf("avc1"));
    Mp4Handle f = open_track(encv);
    ASSERT_NE(f, nullptr);
    char fmt[8] = "xxxxxxx";
    EXPECT_STREQ(mp4_media_data_name(f.get(), 1), "encv");
    EXPECT_FALSE(mp4_media_original_format(f.get(), 1, fmt, 4));
    EXPECT_STREQ(fmt, "xxxxxxx");
    EXPECT_TRUE(mp4_media_original_format(f.get(), 1, fmt, sizeof fmt));
    EXPECT_EQ(std::string(fmt, 8), std::string("avc1\0xx\0", 8));
    EXPECT_EQ(summary(f.get()),
              "n=1 id=1 vide encv avc=1/77/31 ms=10000 br=800 1280x720 fps=0.100000");
    EXPECT_EQ(mp4_esds_object_type(f.get(), 1), 0);

    bare.entries = visual_entry("encv", 1280, 720, avcc(77, 31) + sinf(nullptr) + sinf("avc1"));
    f = open_track(bare);
    EXPECT_FALSE(mp4_media_original_format(f.get(), 1, fmt, sizeof fmt));  // only the first sinf

    // Unknown entry types are opaque: no avcC inside them, size from the track header.
    hevc.entries = visual_entry("hvc1", 1, 1, avcc(1, 1));
    hevc.tkhdWidth = 0x0780FFFF;
    hevc.tkhdHeight = 0x04380000;
    f = open_track(hevc);
    EXPECT_EQ(summary(f.get()),
              "n=1 id=1 vide hvc1 avc=0/0/0 ms=10000 br=800 1920x1080 fps=0.100000");

    twoEntries.entries = visual_entry("avc1", 640, 480, avcc(100, 40)) +
                         visual_entry("mp4v", 320, 240, esds(0x20, 0, VOS03));
    f = open_track(twoEntries);
    EXPECT_EQ(summary(f.get()),
              "n=1 id=1 vide - avc=1/100/40 ms=10000 br=800 640x480 fps=0.100000");
}

TEST_F(Mp4Reader, TrackListAndIds) {
    TrackPlan a, dup, broken, good, zero;
    a.entries = visual_entry("avc1", 640, 480, avcc(100, 40));
    dup.entries = visual_entry("avc1", 320, 240, avcc(66, 30));
    Mp4Handle f = open_bytes(mp4_file(moov(trak(a) + trak(dup))));
    ASSERT_EQ(mp4_track_count(f.get()), 2u);
    EXPECT_EQ(mp4_track_id(f.get(), 1), 1u);
    EXPECT_EQ(mp4_video_width(f.get(), mp4_track_id(f.get(), 1)), 640);  // the first with id 1
    EXPECT_EQ(mp4_track_id(f.get(), 2), MP4_INVALID_TRACK_ID);

    broken.id = 7;
    broken.withStco = false;
    good.id = 2;
    TrackPlan headless = broken;
    headless.withStco = true;
    headless.withTkhd = false;
    f = open_bytes(mp4_file(moov(trak(broken) + trak(headless) + trak(good))));
    ASSERT_EQ(mp4_track_count(f.get()), 1u);
    EXPECT_EQ(mp4_track_id(f.get(), 0), 2u);
    EXPECT_EQ(mp4_track_type(f.get(), 7), nullptr);
    EXPECT_EQ(mp4_track_bit_rate(f.get(), 7), 0u);
    EXPECT_EQ(mp4_track_duration(f.get(), 7), MP4_INVALID_DURATION);

    // Id 0 is counted and typed, but otherwise names no track, except for its timescale.
    zero.id = 0;
    f = open_track(zero);
    ASSERT_EQ(mp4_track_count(f.get()), 1u);
    EXPECT_STREQ(mp4_track_type(f.get(), 0), "vide");
    EXPECT_EQ(mp4_media_data_name(f.get(), 0), nullptr);
    EXPECT_EQ(mp4_video_width(f.get(), 0), 0);
    EXPECT_EQ(mp4_convert_from_track_duration(f.get(), 0, 5000, 1000), 5000u);
}

TEST_F(Mp4Reader, FrameRateDividesBeforeScaling) {
    TrackPlan ntsc;
    ntsc.timescale = 30000;
    ntsc.duration = 300300;
    ntsc.sizes = stsz(1000, 300);
    Mp4Handle f = open_track(ntsc);
    ASSERT_NE(f, nullptr);
    // 300 / 10010 * 1000, not 300 * 1000 / 10010 (which ends ...997).
    EXPECT_EQ(mp4_video_frame_rate(f.get(), 1), 29.970029970029973);
    EXPECT_NE(mp4_video_frame_rate(f.get(), 1), 29.97002997002997);
}

TEST_F(Mp4Reader, FragmentedFileReportsEmptyTables) {
    TrackPlan t;
    t.duration = 0;
    t.sizes = stsz(0, 0);
    std::string moof = box("moof", full_box("mfhd", 0, be32(1)));
    Mp4Handle f = open_bytes(ftyp() + moov(trak(t)) + moof + mdat(32));
    EXPECT_EQ(summary(f.get()), "n=1 id=1 vide avc1 avc=1/100/40 ms=0 br=0 640x480 fps=0.000000");
}

}  // namespace
}  // namespace korvel

// Many apps at once against the running server for a bounded time: catalogues, downloads
// with random packet sizes and bursts, metadata, thumbnails, deletes, apps that vanish
// mid-burst or mid-packet and apps that send garbage. Afterwards the server still serves,
// nothing it sent was wrong, nothing outside the deleted set is gone, and descriptors and
// heap are back within stated bounds.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "app/tool.h"
#include "core/packet.h"
#include "support/jpeg_builder.h"
#include "support/mp4_builder.h"
#include "support/soak_client.h"
#include "support/temp_dir.h"
#include "support/test_server.h"

namespace korvel {
namespace {

using Clock = std::chrono::steady_clock;
using testsupport::AppRun;
using testsupport::pattern;

// Slack for a connection the loop has not reaped yet; nothing else may stay open.
constexpr int FD_SLACK = 4;
// Heap growth allowed between the two halves, measured with every app gone. Thousands of
// sessions per half each hold 184 KiB of event-base buffers, so leaking even one event
// base in a hundred passes this bound several times over.
constexpr long HEAP_GROWTH_KIB = 2 * 1024;
constexpr int TIMEOUT_MS = 15000;
#ifdef KORVEL_SANITIZED
constexpr bool SANITIZED = true;  // the sanitizers are slower and keep their own heap
#else
constexpr bool SANITIZED = false;
#endif

struct CardFile {
    std::string name, path, bytes;  // path empty: a thumbnail substitute or a missing file
    bool deletable;
};

// Reported from the app threads as they go.
void expect(bool fine, const std::string& what, const AppRun& r = {}) {
    EXPECT_TRUE(fine) << what << ": exit " << r.rc << " " << r.err;
}

// Photos with and without thumbnail files (each with its own EXIF thumbnail, so one
// served from the wrong photo shows), videos with companions, large files so that bursts
// and region switches matter, an empty file, and a directory that apps may delete from.
struct SoakCard {
    std::string dcim;
    std::mt19937 rng{7};
    std::vector<CardFile> files;
    std::vector<std::string> deletable, media;
    const int permanentEntries = 12;  // catalogue entries that can never vanish

    void add(const std::string& name, const std::string& bytes, bool mayGo = false) {
        std::string path = dcim + "/" + name.substr(0, 8) + "/" + name.substr(9);
        testsupport::make_dirs(dcim + "/" + name.substr(0, 8));
        testsupport::write_file(path, bytes);
        files.push_back({name, path, bytes, mayGo});
    }
    std::string photo(uint32_t i, const std::string& thumb, size_t body = 0) {
        testsupport::JpegPlan plan =
            testsupport::camera_plan("Soak", "S" + std::to_string(i), 640, 480, thumb);
        plan.body = pattern(body, rng());
        return testsupport::jpeg_file(plan);
    }
    std::string video(size_t extra) {
        return testsupport::mp4_file(testsupport::moov(testsupport::trak({}))) +
               testsupport::box("mdat", pattern(extra, rng()));
    }
    explicit SoakCard(const std::string& root) : dcim(root + "/DCIM") {
        for (uint32_t i = 1; i <= 6; ++i) {
            std::string n = "100MEDIA-IMG_000" + std::to_string(i), t = n + ".thm";
            std::string thumb = testsupport::small_jpeg() + std::string(600 * i, char('a' + i));
            add(n + ".JPG", photo(i, thumb));
            i == 1 ? add(t, pattern(3000, rng())) : files.push_back({t, "", thumb, false});
            media.push_back(n + ".JPG");
        }
        for (uint32_t i = 1; i <= 4; ++i) {
            std::string n = "101MEDIA-VID_000" + std::to_string(i);
            add(n + ".MP4", video(20000 * i));
            add(n + ".2nd", pattern(5000, rng()));
            add(n + ".THM", pattern(2000, rng()));
            media.push_back(n + ".MP4");
        }
        add("102MEDIA-BIG_0001.JPG", photo(9, "", 3 << 20));
        add("102MEDIA-BIG_0002.MP4", video(5 << 20));
        for (uint32_t i = 10; i < 22; ++i) {
            bool isVideo = i % 3 == 0;
            std::string n = "103MEDIA-DEL_00" + std::to_string(i);
            add(n + (isVideo ? ".MP4" : ".JPG"), isVideo ? video(3000) : photo(i, ""), true);
            deletable.push_back(files.back().name);
            add(n + (isVideo ? ".2nd" : ".thm"), pattern(700, rng()), true);
        }
    }
};

// One app: random korvel-app commands, each its own session, until the deadline. Deleters
// and vandals are a fixed share of the apps.
struct SoakApp {
    int idx;
    uint16_t port;
    const SoakCard& card;
    std::atomic<int>& downloads;
    std::mt19937 rng;
    testsupport::TempDir out;
    uint32_t generation = 0;

    // A fresh peerID for every session: the old connection's close may be reaped after the
    // new one's first packet, and must not take the new session's event base with it.
    uint32_t next_peer() { return 0x10000000u | uint32_t(idx) << 12 | (++generation & 0xFFF); }
    // Packet sizes in [512, 65535], bursts that keep `size` bytes within about 64 requests.
    AppRun app(uint32_t size, std::vector<std::string> args) {
        uint32_t packsize = 512 + rng() % (65535 - 512 + 1);
        uint32_t blocks = std::max<uint32_t>(1 + rng() % 16, size / (packsize * 64) + 1);
        args.insert(args.begin(),
                    {"--peer", std::to_string(next_peer()), "--timeout", std::to_string(TIMEOUT_MS),
                     "--packsize", std::to_string(packsize), "--blocks", std::to_string(blocks)});
        return testsupport::run_app(port, args);
    }

    void catalogue_or_metadata() {
        const std::string& name = card.media[rng() % card.media.size()];
        bool meta = rng() % 2 == 0;
        // Metadata asks for bursts big enough to hold the whole document.
        AppRun r = meta ? app(64 << 20, {"meta", name}) : app(1 << 20, {"ls", "--json"});
        expect(r.rc == 0 && (meta ? r.out.find("\"" + name + "\"") != std::string::npos
                                  : testsupport::catalogue_entries(r.out) >= card.permanentEntries),
               meta ? "metadata of " + name : "catalogue", r);
    }
    void download() {
        const CardFile& file = card.files[rng() % card.files.size()];
        AppRun r = app(uint32_t(file.bytes.size()), {"get", file.name, "-o", out.path()});
        std::string got = testsupport::read_file(out.file(file.name));
        unlink(out.file(file.name).c_str());
        downloads += r.rc == 0;
        expect(r.rc != 0 || got == file.bytes, "download differed from " + file.name);
        bool gone = r.rc == app::EXIT_NOT_FOUND || r.rc == app::EXIT_FAILED;
        expect(r.rc == 0 || (file.deletable && gone), "download of " + file.name, r);
    }
    void remove_some() {
        AppRun r = app(0, {"rm", card.deletable[rng() % card.deletable.size()],
                           card.deletable[rng() % card.deletable.size()]});
        expect(r.out.rfind("ack: done (0xFB00)\n", 0) == 0, "delete request not accepted", r);
    }

    // Vanishing mid-burst, or garbage and gone: half a packet, a bad checksum, a length
    // outside 4..65532, noise. How each is answered is the server tests'; here they only
    // must not disturb anybody else.
    void misbehave() {
        app::Client c;
        uint32_t kind = rng() % 5, id = next_peer();
        std::vector<uint8_t> pkt =
            app::encode_packet(1, 1, MSG_POSITION, 1, id, 0, 0, "\0\0\0\0", 4);
        pkt[13] = kind == 3 ? 0xFF : 0;  // a payload length past 65532
        pkt.back() ^= kind == 2 ? 0x5A : 0;
        std::string noise = pattern(20 + rng() % 4000, rng());
        expect(testsupport::connect_app(c, port, id), "cannot connect");
        app::Reply r;
        if (kind == 0 && testsupport::configure_app(c, 65535, 64, TIMEOUT_MS) &&
            testsupport::download_answer(c, "102MEDIA-BIG_0002.MP4", TIMEOUT_MS) != 0 &&
            c.ctrl(MSG_CHUNK_CONT, 0) == 0) {
            c.read_reply(r, TIMEOUT_MS);  // one packet of a whole burst
        } else if (kind == 4) {
            c.send_raw(noise.data(), noise.size());
        } else if (kind != 0) {
            c.send_raw(pkt.data(), kind == 1 ? 1 + rng() % (pkt.size() - 1) : pkt.size());
        }
    }

    void run(Clock::time_point deadline) {
        bool deleter = idx % 10 == 3, vandal = idx % 5 == 1;
        for (int ops = 0; ops < 100000 && Clock::now() < deadline; ++ops) {
            uint32_t roll = rng() % 100;
            roll < 35               ? catalogue_or_metadata()
            : roll >= 80 && deleter ? remove_some()
            : roll >= 80 && vandal  ? misbehave()
                                    : download();
        }
    }
};

TEST(Soak, ManyAppsAtOnceLoseNothingAndLeaveNothingBehind) {
    const int apps = SANITIZED ? 16 : 50, seconds = SANITIZED ? 8 : 20;
    testsupport::TempDir tmp;
    SoakCard card{tmp.file("SD0")};
    testsupport::TestServer server{tmp.file("SD0"), tmp.file("cap.xml")};
    const int baseFds = testsupport::open_fd_count(), fdBound = baseFds + FD_SLACK;
    std::atomic<int> downloads{0};
    auto run_apps = [&] {
        Clock::time_point end = Clock::now() + std::chrono::seconds((seconds + 1) / 2);
        std::vector<std::thread> threads;
        for (int i = 0; i < apps; ++i) {
            threads.emplace_back([&, i] {
                SoakApp{i, server.port(), card, downloads, std::mt19937(1000 + i), {}, 0}.run(end);
            });
        }
        for (std::thread& th : threads) {
            th.join();
        }
    };
    // Two equal halves: the first warms the allocator's pools, the second must not grow.
    run_apps();
    ASSERT_LE(testsupport::fds_settle_to(fdBound), fdBound);
    const long warmHeapKib = testsupport::heap_in_use_kib();
    run_apps();

    EXPECT_EQ(testsupport::clean_session(server.port(), 0x7F000001, card.permanentEntries,
                                         tmp.path(), card.files[0].name, card.files[0].bytes),
              "");
    EXPECT_LE(testsupport::fds_settle_to(fdBound), fdBound) << "descriptors left open";
    const long endHeapKib = testsupport::heap_in_use_kib();
    EXPECT_TRUE(SANITIZED || endHeapKib - warmHeapKib < HEAP_GROWTH_KIB)
        << "heap grew under the same load: " << warmHeapKib << " -> " << endHeapKib << " KiB";
    EXPECT_GT(downloads.load(), apps) << "too little got through to mean anything";
    for (const CardFile& f : card.files) {
        EXPECT_TRUE(f.path.empty() || f.deletable || testsupport::read_file(f.path) == f.bytes)
            << f.path << " changed or gone";
    }
}

}  // namespace
}  // namespace korvel

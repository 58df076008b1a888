// Many apps at once against the running server for a bounded time: catalogues, downloads
// with random packet sizes and bursts, metadata, thumbnails, deletes, apps that vanish
// mid-burst or mid-packet and apps that send garbage. Afterwards the server still serves,
// nothing it sent was wrong, nothing outside the deleted set is gone, and descriptors and
// memory are back within stated bounds.
//
// KORVEL_SOAK_SECONDS (default 20, 8 under sanitizers) and KORVEL_SOAK_APPS (default 50,
// 16 under sanitizers) make it longer or wider by hand.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "app/client.h"
#include "core/packet.h"
#include "support/jpeg_builder.h"
#include "support/mp4_builder.h"
#include "support/soak_client.h"
#include "support/temp_dir.h"
#include "support/test_server.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KORVEL_SOAK_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define KORVEL_SOAK_SANITIZED 1
#endif
#endif
#ifndef KORVEL_SOAK_SANITIZED
#define KORVEL_SOAK_SANITIZED 0
#endif

namespace korvel {
namespace {

using testsupport::Fetched;
using testsupport::Outcome;
using Clock = std::chrono::steady_clock;

// Descriptors the process may hold beyond its quiet baseline once every app has gone:
// nothing should remain, the slack only covers a connection the loop has not yet reaped.
constexpr int FD_SLACK = 4;
// Heap growth allowed between the two halves of the soak, both measured with every app
// gone. Each session's event base holds a 64 KiB packet buffer and a 120 KiB thumbnail
// buffer, and there are thousands of sessions per half, so a leak of even one event base
// in a hundred passes this bound several times over.
constexpr long HEAP_GROWTH_KIB = 2 * 1024;
constexpr int REPLY_TIMEOUT_MS = 15000;

int env_int(const char* name, int fallback) {
    const char* v = getenv(name);
    int n = v != nullptr ? atoi(v) : 0;
    return n > 0 ? n : fallback;
}

enum class Kind {
    Permanent,  // must always download byte-identical
    Thumbnail,  // a missing .thm served from the photo's EXIF thumbnail
    Deletable,  // may vanish under a delete: identical or not found
    Missing,    // never there
    Empty,      // cannot be mapped
};

struct CardFile {
    std::string name;  // as the catalogue writes it
    std::string path;  // on disk; empty for a substitute or a missing file
    std::string bytes;
    Kind kind;
};

std::string random_bytes(std::mt19937& rng, size_t n) {
    std::string s(n, '\0');
    for (char& ch : s) {
        ch = static_cast<char>(rng());
    }
    return s;
}

// The card: photos with and without thumbnail files, videos with companions, a few large
// files so that bursts and region switches matter, an empty file, and a directory of
// files that apps may delete.
class SoakCard {
public:
    explicit SoakCard(const std::string& root) : dcim(root + "/DCIM") { build(); }
    std::vector<CardFile> files;
    std::vector<std::string> deletableNames;
    std::vector<std::string> mediaNames;  // permanent photos and videos, for metadata
    int permanentEntries = 0;             // catalogue entries that can never vanish

private:
    std::string dcim;
    std::mt19937 rng{7};

    void add(const std::string& dir, const std::string& file, const std::string& bytes, Kind kind) {
        std::string path = dcim + "/" + dir + "/" + file;
        testsupport::make_dirs(dcim + "/" + dir);
        testsupport::write_file(path, bytes);
        files.push_back({dir + "-" + file, path, bytes, kind});
    }
    std::string photo(uint32_t i, const std::string& body = "") {
        testsupport::JpegPlan plan =
            testsupport::camera_plan("Soak", "S" + std::to_string(i), 640, 480, thumb(i));
        plan.body = body;
        return testsupport::jpeg_file(plan);
    }
    // Each photo's own thumbnail, so a substitute served from the wrong photo shows.
    static std::string thumb(uint32_t i) {
        return testsupport::small_jpeg() + std::string(600 * i, static_cast<char>('a' + i));
    }
    std::string video(size_t extra) {
        std::string v = testsupport::mp4_file(testsupport::moov(testsupport::trak({})));
        return extra == 0 ? v : v + testsupport::box("mdat", random_bytes(rng, extra));
    }
    void build();
};

void SoakCard::build() {
    for (uint32_t i = 1; i <= 6; ++i) {
        std::string n = "IMG_000" + std::to_string(i);
        add("100MEDIA", n + ".JPG", photo(i), Kind::Permanent);
        if (i == 1) {
            add("100MEDIA", n + ".thm", random_bytes(rng, 3000), Kind::Permanent);
        } else {
            files.push_back({"100MEDIA-" + n + ".thm", "", thumb(i), Kind::Thumbnail});
        }
        mediaNames.push_back("100MEDIA-" + n + ".JPG");
    }
    for (uint32_t i = 1; i <= 4; ++i) {
        std::string n = "VID_000" + std::to_string(i);
        add("101MEDIA", n + ".MP4", video(20000 * i), Kind::Permanent);
        add("101MEDIA", n + ".2nd", random_bytes(rng, 5000), Kind::Permanent);
        add("101MEDIA", n + ".THM", random_bytes(rng, 2000), Kind::Permanent);
        mediaNames.push_back("101MEDIA-" + n + ".MP4");
    }
    add("102MEDIA", "BIG_0001.JPG", photo(9, random_bytes(rng, 3 << 20)), Kind::Permanent);
    add("102MEDIA", "BIG_0002.MP4", video(5 << 20), Kind::Permanent);
    add("102MEDIA", "EMPTY.JPG", "", Kind::Empty);
    permanentEntries = 6 + 4 + 3;
    for (uint32_t i = 10; i < 22; ++i) {
        std::string n = "DEL_00" + std::to_string(i);
        bool isVideo = i % 3 == 0;
        add("103MEDIA", n + (isVideo ? ".MP4" : ".JPG"), isVideo ? video(3000) : photo(i),
            Kind::Deletable);
        deletableNames.push_back(files.back().name);
        add("103MEDIA", n + (isVideo ? ".2nd" : ".thm"), random_bytes(rng, 700), Kind::Deletable);
    }
    files.push_back({"100MEDIA-NOPE.JPG", "", "", Kind::Missing});
    files.push_back({"999MEDIA-IMG_0001.JPG", "", "", Kind::Missing});
}

// What the apps saw, shared by all of them.
struct Tally {
    std::atomic<int> downloads{0}, mismatches{0}, catalogues{0}, metadata{0}, deletes{0};
    std::atomic<int> cutBursts{0}, cutPackets{0}, garbage{0};
    std::atomic<long long> bytes{0};
    std::mutex m;
    std::vector<std::string> unexpected;
    void fail(const std::string& what) {
        std::lock_guard<std::mutex> g(m);
        if (unexpected.size() < 20) {
            unexpected.push_back(what);
        }
    }
};

// One app: a loop of random actions over its own connection until the deadline.
class SoakApp {
public:
    SoakApp(int index, uint16_t serverPort, const SoakCard& soakCard, Tally& tally,
            Clock::time_point end)
        : idx(index),
          port(serverPort),
          card(soakCard),
          t(tally),
          deadline(end),
          rng(1000 + index) {}
    void run();

private:
    int idx;
    uint16_t port;
    const SoakCard& card;
    Tally& t;
    Clock::time_point deadline;
    std::mt19937 rng;
    app::Client c;
    uint32_t generation = 0;

    bool reconnect();
    void fail(const std::string& what) { t.fail("app " + std::to_string(idx) + ": " + what); }
    bool begin(const testsupport::SessionParams& p);
    void finish(bool ok);
    void catalogue();
    void download();
    void metadata();
    void remove_some();
    void vanish_mid_burst();
    void vanish_mid_packet();
    void send_garbage();
};

bool SoakApp::reconnect() {
    // A fresh peerID each time: the old connection's close may be reaped after the new
    // one's first packet, and must not take the new session's event base with it.
    ++generation;
    c.peerID = 0x10000000u | static_cast<uint32_t>(idx) << 12 | (generation & 0xFFF);
    c.seqNO = 1;
    if (c.connect_to("127.0.0.1", port, REPLY_TIMEOUT_MS) != app::CLIENT_OK) {
        fail("cannot connect");
        return false;
    }
    return true;
}

bool SoakApp::begin(const testsupport::SessionParams& p) {
    int code = testsupport::configure_session(c, p);
    if (code != static_cast<int>(ACK_DONE)) {
        fail("configuration answered " + std::to_string(code));
        reconnect();
        return false;
    }
    return true;
}

// A broken session leaves the stream unframed; only a new connection is safe after it.
void SoakApp::finish(bool ok) {
    if (!ok || !testsupport::end_session(c, rng() % 2 == 0, REPLY_TIMEOUT_MS)) {
        reconnect();
    }
}

void SoakApp::catalogue() {
    testsupport::SessionParams p = testsupport::random_params(rng, 64 * 1024, REPLY_TIMEOUT_MS);
    if (!begin(p)) {
        return;
    }
    Fetched f = testsupport::fetch_catalogue(c, 1, p);
    int entries = f.outcome == Outcome::Done ? testsupport::catalogue_entries(f.bytes) : -1;
    if (entries < card.permanentEntries) {
        fail("catalogue " + f.why + " with " + std::to_string(entries) + " entries");
    } else {
        ++t.catalogues;
    }
    finish(f.outcome == Outcome::Done);
}

void SoakApp::download() {
    const CardFile& file = card.files[rng() % card.files.size()];
    testsupport::SessionParams p =
        testsupport::random_params(rng, static_cast<uint32_t>(file.bytes.size()), REPLY_TIMEOUT_MS);
    if (!begin(p)) {
        return;
    }
    Fetched f = testsupport::download(c, file.name, p, rng, file.kind == Kind::Thumbnail);
    bool fine = false;
    if (f.outcome == Outcome::Done) {
        ++t.downloads;
        t.bytes += static_cast<long long>(f.bytes.size());
        if (f.bytes != file.bytes) {
            ++t.mismatches;
        }
        fine = file.kind != Kind::Missing && file.kind != Kind::Empty;
    } else if (f.outcome == Outcome::Refused) {
        fine = (file.kind == Kind::Missing && f.code == ACK_NOT_FOUND) ||
               (file.kind == Kind::Empty && f.code == ACK_FAILED) ||
               (file.kind == Kind::Deletable && (f.code == ACK_NOT_FOUND || f.code == ACK_FAILED));
    }
    if (!fine) {
        fail("download of " + file.name + ": " + f.why);
    }
    finish(f.outcome != Outcome::Broken);
}

void SoakApp::metadata() {
    const std::string& name = card.mediaNames[rng() % card.mediaNames.size()];
    testsupport::SessionParams p = testsupport::random_params(rng, 0, REPLY_TIMEOUT_MS);
    p.blocks = 64;  // the whole document in one reply
    if (!begin(p)) {
        return;
    }
    Fetched f = testsupport::fetch_metadata(c, name, p);
    if (f.outcome != Outcome::Done || f.bytes.find("\"" + name + "\"") == std::string::npos ||
        f.bytes.find("\"metadata\"") == std::string::npos) {
        fail("metadata of " + name + ": " + f.why);
    } else {
        ++t.metadata;
    }
    finish(f.outcome != Outcome::Broken);
}

void SoakApp::remove_some() {
    testsupport::SessionParams p = testsupport::random_params(rng, 0, REPLY_TIMEOUT_MS);
    if (!begin(p)) {
        return;
    }
    std::string json = "{\"media\":[\"" + card.deletableNames[rng() % card.deletableNames.size()] +
                       "\",\"" + card.deletableNames[rng() % card.deletableNames.size()] + "\"]}";
    app::Reply r;
    bool ok = c.request_delete(json) == app::CLIENT_OK &&
              c.read_reply_of(1, r, REPLY_TIMEOUT_MS) == app::CLIENT_OK && r.reqType == 1 &&
              r.ackCode == ACK_DONE;
    if (!ok) {
        fail("delete request not accepted");
    } else {
        ++t.deletes;
    }
    finish(ok);
}

void SoakApp::vanish_mid_burst() {
    testsupport::SessionParams p;
    p.packsize = 65535;
    p.blocks = 64;
    p.timeoutMs = REPLY_TIMEOUT_MS;
    if (!begin(p)) {
        return;
    }
    Fetched f;
    uint32_t size = 0;
    if (testsupport::request_size(c, "102MEDIA-BIG_0002.MP4", p, f, size)) {
        c.ctrl(6, 0);
        app::Reply r;
        c.read_reply(r, REPLY_TIMEOUT_MS);
        ++t.cutBursts;
    } else {
        fail("big file refused: " + f.why);
    }
    c.close_connection();
    reconnect();
}

void SoakApp::vanish_mid_packet() {
    uint8_t config[1032] = {};
    std::vector<uint8_t> pkt = app::encode_packet(0, 1, 17, c.seqNO, c.peerID, 0, 0, config, 1032);
    c.send_raw(pkt.data(), 1 + rng() % (pkt.size() - 1));
    c.close_connection();
    ++t.cutPackets;
    reconnect();
}

void SoakApp::send_garbage() {
    ++t.garbage;
    uint32_t peer = 0x20000000u | static_cast<uint32_t>(idx) << 12 | (generation & 0xFFF);
    std::vector<uint8_t> pkt = app::encode_packet(1, 1, 5, c.seqNO, peer, 0, 0, "\0\0\0\0", 4);
    app::Reply r;
    switch (rng() % 3) {
        case 0: {  // a checksum that does not match is answered and the connection stays
            pkt.back() ^= 0x5A;
            c.send_raw(pkt.data(), pkt.size());
            if (c.read_reply_of(5, r, REPLY_TIMEOUT_MS) != app::CLIENT_OK || r.reqType != 1 ||
                r.ackCode != ACK_BAD_CHECKSUM) {
                fail("bad checksum not answered with 0xFB03");
                reconnect();
            }
            return;
        }
        case 1: {  // a length outside 4..65532 closes the connection
            uint32_t len = rng() % 2 == 0 ? 3 : 65533 + rng() % 100000;
            pkt[12] = static_cast<uint8_t>(len >> 24);
            pkt[13] = static_cast<uint8_t>(len >> 16);
            pkt[14] = static_cast<uint8_t>(len >> 8);
            pkt[15] = static_cast<uint8_t>(len);
            c.send_raw(pkt.data(), pkt.size());
            if (c.read_reply(r, REPLY_TIMEOUT_MS) != app::CLIENT_CLOSED) {
                fail("bad length did not close the connection");
            }
            break;
        }
        default: {  // noise with a peerID of its own, then gone
            std::string noise = random_bytes(rng, 20 + rng() % 4000);
            memcpy(&noise[4], &pkt[4], 4);
            c.send_raw(noise.data(), noise.size());
            break;
        }
    }
    reconnect();
}

void SoakApp::run() {
    if (!reconnect()) {
        return;
    }
    bool deleter = idx % 10 == 3;
    bool vandal = idx % 5 == 1;
    for (int ops = 0; ops < 100000 && Clock::now() < deadline; ++ops) {
        uint32_t roll = rng() % 100;
        if (roll < 20) {
            catalogue();
        } else if (roll < 60) {
            download();
        } else if (roll < 75) {
            metadata();
        } else if (roll < 80 && deleter) {
            remove_some();
        } else if (roll < 87 && vandal) {
            vanish_mid_burst();
        } else if (roll < 93 && vandal) {
            vanish_mid_packet();
        } else if (vandal) {
            send_garbage();
        } else {
            download();
        }
    }
    c.close_connection();
}

class Soak : public testing::Test {
protected:
    testsupport::TempDir tmp;
    std::string root = tmp.file("SD0");
    std::unique_ptr<SoakCard> card;
    std::unique_ptr<testsupport::TestServer> server;

    void SetUp() override {
        card.reset(new SoakCard(root));
        server.reset(new testsupport::TestServer(root, tmp.file("cap.xml")));
    }
    void TearDown() override { server.reset(); }

    void run_apps(int apps, int seconds, Tally& tally) {
        Clock::time_point end = Clock::now() + std::chrono::seconds(seconds);
        std::vector<std::thread> threads;
        for (int i = 0; i < apps; ++i) {
            threads.emplace_back([&, i] { SoakApp(i, server->port(), *card, tally, end).run(); });
        }
        for (std::thread& th : threads) {
            th.join();
        }
    }
    // Waits (bounded) until the loop has reaped every closed connection.
    int settled_fds(int bound) {
        int n = testsupport::open_fd_count();
        for (int i = 0; i < 100 && n > bound; ++i) {
            usleep(100000);
            n = testsupport::open_fd_count();
        }
        return n;
    }
};

TEST_F(Soak, ManyAppsAtOnceLoseNothingAndLeaveNothingBehind) {
    const int apps = env_int("KORVEL_SOAK_APPS", KORVEL_SOAK_SANITIZED ? 16 : 50);
    const int seconds = env_int("KORVEL_SOAK_SECONDS", KORVEL_SOAK_SANITIZED ? 8 : 20);
    const int baseFds = testsupport::open_fd_count();

    // Two equal halves: the first warms the allocator's pools, the second must not grow.
    Tally tally;
    run_apps(apps, (seconds + 1) / 2, tally);
    ASSERT_LE(settled_fds(baseFds + FD_SLACK), baseFds + FD_SLACK);
    const long warmHeapKib = testsupport::heap_in_use_kib();
    run_apps(apps, (seconds + 1) / 2, tally);

    EXPECT_EQ(testsupport::clean_session(server->port(), 0x7F000001, card->permanentEntries,
                                         card->files[0].name, card->files[0].bytes),
              "");
    EXPECT_LE(settled_fds(baseFds + FD_SLACK), baseFds + FD_SLACK)
        << "descriptors left open after every app closed";
    const long endHeapKib = testsupport::heap_in_use_kib();
    if (!KORVEL_SOAK_SANITIZED) {  // the sanitizers keep their own heap and leak check
        EXPECT_LT(endHeapKib - warmHeapKib, HEAP_GROWTH_KIB) << "heap grew under the same load";
    }

    EXPECT_EQ(tally.mismatches.load(), 0) << "a completed download differed from its file";
    EXPECT_GT(tally.downloads.load(), apps) << "too little got through to mean anything";
    for (const std::string& u : tally.unexpected) {
        ADD_FAILURE() << u;
    }
    for (const CardFile& f : card->files) {
        if (!f.path.empty() && f.kind != Kind::Deletable) {
            EXPECT_TRUE(testsupport::exists(f.path)) << f.path << " is gone";
            EXPECT_EQ(testsupport::read_file(f.path), f.bytes) << f.path << " changed";
        }
    }
    printf(
        "soak: %d apps, %d s: %d downloads (%lld bytes), %d catalogues, %d metadata, "
        "%d deletes, %d cut bursts, %d cut packets, %d garbage; fds %d -> %d; "
        "heap %ld -> %ld KiB\n",
        apps, seconds, tally.downloads.load(), tally.bytes.load(), tally.catalogues.load(),
        tally.metadata.load(), tally.deletes.load(), tally.cutBursts.load(),
        tally.cutPackets.load(), tally.garbage.load(), baseFds, testsupport::open_fd_count(),
        warmHeapKib, endHeapKib);
}

}  // namespace
}  // namespace korvel

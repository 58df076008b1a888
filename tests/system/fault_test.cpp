// Faults of the card and of the network, against the running server: the card vanishing
// in the middle of a catalogue or a download, a file shrinking under a running burst, a
// full card during a delete, and an app that stops reading. Each one ends in a reply code
// or a closed connection, and a well-behaved app is served afterwards.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <random>
#include <string>
#include <thread>

#include "app/client.h"
#include "core/packet.h"
#include "support/soak_client.h"
#include "support/temp_dir.h"
#include "support/test_server.h"

namespace korvel {
namespace {

using testsupport::Fetched;
using testsupport::Outcome;
using testsupport::SessionParams;
using Clock = std::chrono::steady_clock;

constexpr int TIMEOUT_MS = 5000;

std::string pattern(size_t n, uint32_t seed) {
    std::string s(n, '\0');
    std::mt19937 rng(seed);
    for (char& ch : s) {
        ch = static_cast<char>(rng());
    }
    return s;
}

SessionParams params(uint16_t packsize, uint16_t blocks) {
    SessionParams p;
    p.packsize = packsize;
    p.blocks = blocks;
    p.timeoutMs = TIMEOUT_MS;
    return p;
}

class Fault : public testing::Test {
protected:
    testsupport::TempDir tmp;
    std::string root = tmp.file("SD0");
    std::string media = root + "/DCIM/100MEDIA";
    std::unique_ptr<testsupport::TestServer> server;
    uint32_t nextPeer = 0x51000001;

    void start() { server.reset(new testsupport::TestServer(root, tmp.file("cap.xml"))); }
    void TearDown() override { server.reset(); }

    void connect(app::Client& c) {
        c.peerID = nextPeer++;
        ASSERT_EQ(c.connect_to("127.0.0.1", server->port(), TIMEOUT_MS), app::CLIENT_OK);
    }
    // A connection whose receive window is fixed at `window` bytes (set before connecting,
    // so the kernel does not grow it): what the server can queue stays well below a burst.
    void connect_narrow(app::Client& c, int window) {
        c.peerID = nextPeer++;
        int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        ASSERT_GE(fd, 0);
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &window, sizeof window);
        sockaddr_in sa{};
        sa.sin_family = AF_INET;
        sa.sin_port = htons(server->port());
        sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ASSERT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa), 0);
        c.adopt_fd(fd);
    }
    std::string add(const std::string& name, const std::string& bytes) {
        testsupport::make_dirs(media);
        testsupport::write_file(media + "/" + name, bytes);
        return media + "/" + name;
    }
    // A configured session with `name` opened for download; its size.
    uint32_t open_download(app::Client& c, const std::string& name, const SessionParams& p) {
        EXPECT_EQ(testsupport::configure_session(c, p), static_cast<int>(ACK_DONE));
        Fetched f;
        uint32_t size = 0;
        EXPECT_TRUE(testsupport::request_size(c, name, p, f, size)) << f.why;
        return size;
    }
    // After the fault: a fresh app is served, and gets `name` when the card still has it.
    void clean_app_is_served(const std::string& name = "", const std::string& bytes = "") {
        EXPECT_EQ(testsupport::clean_session(server->port(), nextPeer++, 0, name, bytes), "");
    }
};

TEST_F(Fault, CardRemovedBetweenCataloguePagesStillDeliversTheBuiltCatalogue) {
    for (int i = 0; i < 300; ++i) {
        add("IMG_" + std::to_string(1000 + i) + ".JPG", "x");
    }
    start();
    app::Client c;
    connect(c);
    SessionParams p = params(1024, 2);
    ASSERT_EQ(testsupport::configure_session(c, p), static_cast<int>(ACK_DONE));
    ASSERT_EQ(c.request_catalogue(1, 0, 1), app::CLIENT_OK);
    std::string text;
    bool last = false;
    Fetched f;
    ASSERT_TRUE(testsupport::read_document_burst(c, 0, p, text, last, f)) << f.why;
    ASSERT_FALSE(last);

    testsupport::remove_tree(root);
    for (int pages = 0; !last && pages < 1000; ++pages) {
        ASSERT_EQ(c.request_catalogue(1, static_cast<uint32_t>(text.size()), 0), app::CLIENT_OK);
        ASSERT_TRUE(testsupport::read_document_burst(c, 0, p, text, last, f)) << f.why;
    }
    EXPECT_EQ(testsupport::catalogue_entries(text), 300);

    // The next catalogue is built afresh and finds no card.
    ASSERT_TRUE(testsupport::end_session(c, false, TIMEOUT_MS));
    Fetched again = testsupport::fetch_catalogue(c, 1, p);
    ASSERT_EQ(again.outcome, Outcome::Done) << again.why;
    EXPECT_EQ(testsupport::catalogue_entries(again.bytes), 0);
    clean_app_is_served();
}

TEST_F(Fault, CardRemovedDuringTheWalkGivesAWholeCatalogueOfWhatWasLeft) {
    for (int d = 0; d < 40; ++d) {
        std::string dir = root + "/DCIM/" + std::to_string(100 + d) + "MEDIA";
        testsupport::make_dirs(dir);
        for (int i = 0; i < 100; ++i) {
            testsupport::write_file(dir + "/IMG_" + std::to_string(1000 + i) + ".JPG", "x");
        }
    }
    start();
    app::Client c;
    connect(c);
    SessionParams p = params(65535, 4);
    ASSERT_EQ(testsupport::configure_session(c, p), static_cast<int>(ACK_DONE));
    std::thread pull([&] { testsupport::remove_tree(root); });
    Fetched cat = testsupport::fetch_catalogue(c, 1, p);
    pull.join();
    // Whatever the walk still saw, the text is whole and well formed.
    ASSERT_EQ(cat.outcome, Outcome::Done) << cat.why;
    int entries = testsupport::catalogue_entries(cat.bytes);
    EXPECT_GE(entries, 0);
    EXPECT_LE(entries, 4000);
    clean_app_is_served();
}

TEST_F(Fault, CardRemovedMidDownloadStillDeliversTheOpenFile) {
    std::string bytes = pattern(3 << 20, 1);
    add("VID_0001.MP4", bytes);
    start();
    app::Client c;
    connect(c);
    SessionParams p = params(4096, 16);
    uint32_t size = open_download(c, "100MEDIA-VID_0001.MP4", p);
    ASSERT_EQ(size, bytes.size());

    // The open descriptor keeps the file's pages, so later regions still map them.
    testsupport::remove_tree(root);
    std::string got;
    const size_t burst = 4096 * 16;
    for (int requests = 0; got.size() < size && requests < 1000; ++requests) {
        ASSERT_EQ(c.ctrl(3, static_cast<uint32_t>(got.size())), app::CLIENT_OK);
        size_t until = got.size() + std::min(burst, size - got.size());
        while (got.size() < until) {
            app::Reply r;
            ASSERT_EQ(c.read_reply_of(3, r, TIMEOUT_MS), app::CLIENT_OK);
            ASSERT_EQ(r.reqType, 0u) << "ack 0x" << std::hex << r.ackCode;
            got.append(r.payload.begin(), r.payload.end());
        }
    }
    EXPECT_TRUE(got == bytes);
    clean_app_is_served();
}

// The app holds back its reads, so the burst is still being built when the file shrinks;
// the packets after that point cannot be read from the mapping at all.
TEST_F(Fault, FileShrunkDuringABurstEndsTheBurstAndTheServerGoesOn) {
    std::string bytes = pattern(24 << 20, 3);
    std::string path = add("VID_0003.MP4", bytes);
    start();
    app::Client c;
    connect_narrow(c, 256 << 10);
    SessionParams p = params(65535, 320);
    ASSERT_EQ(open_download(c, "100MEDIA-VID_0003.MP4", p), bytes.size());
    ASSERT_EQ(c.ctrl(3, 0), app::CLIENT_OK);
    app::Reply r;
    ASSERT_EQ(c.read_reply_of(3, r, TIMEOUT_MS), app::CLIENT_OK);
    ASSERT_EQ(r.reqType, 0u);
    usleep(300000);  // the server fills the window and waits
    ASSERT_EQ(truncate(path.c_str(), 0), 0);

    // Packets already sent still arrive. Then either the packet whose pages are gone is
    // refused with 0xFB06, or the kernel failed the write halfway through a packet, and a
    // connection left inside a packet is closed.
    uint64_t received = r.payload.size();
    for (;;) {
        int rr = c.read_reply_of(3, r, TIMEOUT_MS);
        if (rr == app::CLIENT_CLOSED) {
            break;
        }
        ASSERT_EQ(rr, app::CLIENT_OK);
        if (r.reqType == 1) {
            EXPECT_EQ(r.ackCode, ACK_FAILED);
            break;
        }
        received += r.payload.size();
    }
    EXPECT_LT(received, 65535ull * 320);
    clean_app_is_served();
}

// A card so full that not even a directory fits: the holding directory cannot be made,
// so the request is answered 0xFB10 and the video goes at once.
TEST_F(Fault, FullCardDuringADeleteUnlinksDirectly) {
    testsupport::make_dirs(root);
    if (mount("tmpfs", root.c_str(), "tmpfs", 0, "size=64k,nr_inodes=8") != 0) {
        GTEST_SKIP() << "cannot mount a small card here: " << strerror(errno);
    }
    struct Unmount {
        std::string dir;
        ~Unmount() { umount2(dir.c_str(), MNT_DETACH); }
    } unmount{root};
    add("VID_0001.MP4", "video");
    add("VID_0001.2nd", "second");
    // Fill every inode the card has left.
    int fillers = 0;
    for (; fillers < 64; ++fillers) {
        std::string p = root + "/fill" + std::to_string(fillers);
        FILE* fp = fopen(p.c_str(), "w");
        if (fp == nullptr) {
            break;
        }
        fclose(fp);
    }
    ASSERT_LT(fillers, 64) << "the card never filled up";
    start();
    app::Client c;
    connect(c);
    ASSERT_EQ(testsupport::configure_session(c, params(4096, 4)), static_cast<int>(ACK_DONE));
    ASSERT_EQ(c.request_delete("{\"media\":[\"100MEDIA-VID_0001.MP4\"]}"), app::CLIENT_OK);
    uint32_t codes[2] = {};
    for (uint32_t& code : codes) {
        app::Reply r;
        ASSERT_EQ(c.read_reply_of(1, r, TIMEOUT_MS), app::CLIENT_OK);
        code = r.ackCode;
    }
    EXPECT_EQ(codes[0], ACK_DONE);
    EXPECT_EQ(codes[1], ACK_BAD_LOCATION);
    for (int i = 0; i < 500 && testsupport::exists(media + "/VID_0001.2nd"); ++i) {
        usleep(10000);  // the unlinks follow the reply
    }
    EXPECT_FALSE(testsupport::exists(media + "/VID_0001.MP4"));
    EXPECT_FALSE(testsupport::exists(media + "/VID_0001.2nd"));
    EXPECT_TRUE(testsupport::exists(root + "/fill0"));
    clean_app_is_served();
    server.reset();  // before the card is unmounted
}

// An app that asks for a large burst and never reads: its stream waits for the socket,
// gives up after the write stall limit and the connection is closed, while other apps are
// served meanwhile.
TEST_F(Fault, AppThatNeverReadsIsDroppedAndOthersAreServed) {
    std::string bytes = pattern(16 << 20, 4);
    add("VID_0004.MP4", bytes);
    std::string photo = pattern(200000, 5);
    add("IMG_0001.JPG", photo);
    start();
    const int baseFds = testsupport::open_fd_count();

    app::Client stalled;
    connect_narrow(stalled, 256 << 10);
    SessionParams big = params(65535, 256);
    ASSERT_EQ(open_download(stalled, "100MEDIA-VID_0004.MP4", big), bytes.size());
    ASSERT_EQ(stalled.ctrl(3, 0), app::CLIENT_OK);
    Clock::time_point stalledAt = Clock::now();

    // Served while the stalled stream is blocked on its full socket.
    clean_app_is_served("100MEDIA-IMG_0001.JPG", photo);
    EXPECT_LT(Clock::now() - stalledAt, std::chrono::seconds(5))
        << "the other app waited for the stalled one";

    // Past the stall limit, drain: what was queued arrives, then the server's end closes.
    std::this_thread::sleep_until(stalledAt + std::chrono::seconds(6));
    uint64_t received = 0;
    int rr = app::CLIENT_OK;
    while (rr == app::CLIENT_OK) {
        app::Reply r;
        rr = stalled.read_reply(r, 20000);
        received += r.payload.size();
    }
    EXPECT_EQ(rr, app::CLIENT_CLOSED);
    EXPECT_LT(received, bytes.size());
    EXPECT_GE(Clock::now() - stalledAt, std::chrono::seconds(5));
    stalled.close_connection();

    int fds = testsupport::open_fd_count();
    for (int i = 0; i < 100 && fds > baseFds; ++i) {
        usleep(50000);
        fds = testsupport::open_fd_count();
    }
    EXPECT_LE(fds, baseFds) << "the dropped app's descriptors are still open";
}

}  // namespace
}  // namespace korvel

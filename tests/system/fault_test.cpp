// Faults of the card and of the network, against the running server: the card vanishing
// in the middle of a catalogue or a download, a file shrinking under a running burst, a
// full card during a delete, and an app that stops reading. Each one ends in a reply code
// or a closed connection, and a well-behaved app is served afterwards.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>

#include "app/tool.h"
#include "core/packet.h"
#include "support/soak_client.h"
#include "support/temp_dir.h"
#include "support/test_server.h"

namespace korvel {
namespace {

using Clock = std::chrono::steady_clock;
using testsupport::pattern;
constexpr int TIMEOUT_MS = 5000;

class Fault : public testsupport::ServedCard {
protected:
    // A configured session with `name` opened for download; its size.
    static uint32_t open_download(app::Client& c, const std::string& name, uint16_t packsize,
                                  uint16_t blocks) {
        EXPECT_TRUE(testsupport::configure_app(c, packsize, blocks));
        return testsupport::download_answer(c, name, TIMEOUT_MS);
    }
    // Reads data until something else comes: the refusal's code, or how the read failed.
    static int drain(app::Client& c, uint64_t& received, int ms) {
        app::Reply r;
        int rr;
        while ((rr = c.read_reply(r, ms)) == app::CLIENT_OK && r.reqType == REQ_DATA) {
            received += r.payload.size();
        }
        return rr == app::CLIENT_OK ? int(r.ackCode) : rr;
    }
};

TEST_F(Fault, CardRemovedBetweenCataloguePagesStillDeliversTheBuiltCatalogue) {
    for (int i = 0; i < 300; ++i) {
        add("IMG_" + std::to_string(1000 + i) + ".JPG", "x");
    }
    start();
    app::Client c;
    ASSERT_TRUE(testsupport::connect_app(c, server->port(), peer++));
    ASSERT_TRUE(testsupport::configure_app(c, 1024, 2));
    std::string text;
    bool last = false;
    auto page = [&](uint8_t marker) {
        ASSERT_EQ(c.request_catalogue(1, uint32_t(text.size()), marker), app::CLIENT_OK);
        for (int n = 0; n < 2 && !last; ++n) {
            app::Reply r;
            ASSERT_EQ(c.read_reply_of(MSG_CATALOGUE, r, TIMEOUT_MS), app::CLIENT_OK);
            ASSERT_EQ(r.offset, text.size());
            text.append(r.payload.begin(), r.payload.end());
            last = r.marker == MARKER_LAST || r.marker == MARKER_CONT_LAST;
        }
    };
    page(MARKER_LAST);
    ASSERT_FALSE(last);
    testsupport::remove_tree(root);
    for (int pages = 0; !last && pages < 1000 && !HasFatalFailure(); ++pages) {
        page(MARKER_MORE);
    }
    EXPECT_EQ(testsupport::catalogue_entries(text), 300);
    // The next catalogue is built afresh and finds no card.
    testsupport::AppRun again = app({"ls", "--json"});
    EXPECT_EQ(again.rc, 0) << again.err;
    EXPECT_EQ(testsupport::catalogue_entries(again.out), 0);
}

TEST_F(Fault, CardRemovedDuringTheWalkGivesAWholeCatalogueOfWhatWasLeft) {
    for (int d = 0; d < 40; ++d) {
        std::string dir = dcim + "/" + std::to_string(100 + d) + "MEDIA";
        testsupport::make_dirs(dir);
        for (int i = 0; i < 100; ++i) {
            testsupport::write_file(dir + "/IMG_" + std::to_string(1000 + i) + ".JPG", "x");
        }
    }
    start();
    std::thread pull([&] { testsupport::remove_tree(root); });
    testsupport::AppRun cat = app({"--packsize", "65535", "ls", "--json"});
    pull.join();
    // Whatever the walk still saw, the text is whole and well formed.
    ASSERT_EQ(cat.rc, 0) << cat.err;
    EXPECT_GE(testsupport::catalogue_entries(cat.out), 0);
    expect_served();
}

TEST_F(Fault, CardRemovedMidDownloadStillDeliversTheOpenFile) {
    std::string bytes = pattern(3 << 20, 1);
    add("VID_0001.MP4", bytes);
    start();
    app::Client c;
    ASSERT_TRUE(testsupport::connect_app(c, server->port(), peer++));
    ASSERT_EQ(open_download(c, "100MEDIA-VID_0001.MP4", 4096, 16), bytes.size());
    // The open descriptor keeps the file's pages, so later regions still map them.
    testsupport::remove_tree(root);
    std::string got;
    for (int requests = 0; got.size() < bytes.size() && requests < 1000; ++requests) {
        ASSERT_EQ(c.ctrl(MSG_CHUNK, uint32_t(got.size())), app::CLIENT_OK);
        size_t until = std::min(got.size() + 4096 * 16, bytes.size());
        while (got.size() < until) {
            app::Reply r;
            ASSERT_EQ(c.read_reply_of(MSG_CHUNK, r, TIMEOUT_MS), app::CLIENT_OK);
            ASSERT_EQ(r.reqType, 0u) << "ack 0x" << std::hex << r.ackCode;
            got.append(r.payload.begin(), r.payload.end());
        }
    }
    EXPECT_TRUE(got == bytes);
    expect_served();
}

// The app holds back its reads, so the burst is still being built when the file shrinks;
// the packets after that point cannot be read from the mapping at all.
TEST_F(Fault, FileShrunkDuringABurstEndsTheBurstAndTheServerGoesOn) {
    std::string bytes = pattern(24 << 20, 3);
    std::string path = add("VID_0003.MP4", bytes);
    start();
    app::Client c;
    ASSERT_TRUE(testsupport::connect_app(c, server->port(), peer++, 256 << 10));
    ASSERT_EQ(open_download(c, "100MEDIA-VID_0003.MP4", 65535, 320), bytes.size());
    ASSERT_EQ(c.ctrl(MSG_CHUNK, 0), app::CLIENT_OK);
    // The server has filled the window and waits on it when more than a packet is queued.
    EXPECT_TRUE(testsupport::eventually([&] {
        int queued = 0;
        return ioctl(c.fd(), FIONREAD, &queued) == 0 && queued > 65535 + 24;
    }));
    ASSERT_EQ(truncate(path.c_str(), 0), 0);

    // Packets already sent still arrive. Then either the packet whose pages are gone is
    // refused with 0xFB06, or the kernel failed the write halfway through a packet, and a
    // connection left inside a packet is closed.
    uint64_t received = 0;
    int end = drain(c, received, TIMEOUT_MS);
    EXPECT_TRUE(end == app::CLIENT_CLOSED || end == int(ACK_FAILED)) << end;
    EXPECT_LT(received, 65535ull * 320);
    expect_served();
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
    int fillers = 0;  // every inode the card has left
    while (fillers < 64 && close(open((root + "/fill" + std::to_string(fillers)).c_str(),
                                      O_CREAT | O_WRONLY, 0644)) == 0) {
        ++fillers;
    }
    ASSERT_LT(fillers, 64) << "the card never filled up";
    start();
    EXPECT_EQ(app({"rm", "100MEDIA-VID_0001.MP4"}).out,
              "ack: done (0xFB00)\nack: bad location (0xFB10)\n");
    // The unlinks follow the reply.
    EXPECT_TRUE(
        testsupport::eventually([&] { return !testsupport::exists(media + "/VID_0001.2nd"); }));
    EXPECT_FALSE(testsupport::exists(media + "/VID_0001.MP4"));
    EXPECT_TRUE(testsupport::exists(root + "/fill0"));
    expect_served();
    server.reset();  // before the card is unmounted
}

// An app that asks for a large burst and never reads: its stream waits for the socket,
// gives up after the write stall limit and the connection is closed, while other apps are
// served meanwhile.
TEST_F(Fault, AppThatNeverReadsIsDroppedAndOthersAreServed) {
    std::string bytes = pattern(16 << 20, 4), photo = pattern(200000, 5);
    add("VID_0004.MP4", bytes);
    add("IMG_0001.JPG", photo);
    start();
    const int baseFds = testsupport::open_fd_count();
    app::Client stalled;
    ASSERT_TRUE(testsupport::connect_app(stalled, server->port(), peer++, 256 << 10));
    ASSERT_EQ(open_download(stalled, "100MEDIA-VID_0004.MP4", 65535, 256), bytes.size());
    ASSERT_EQ(stalled.ctrl(MSG_CHUNK, 0), app::CLIENT_OK);
    Clock::time_point stalledAt = Clock::now();

    // Served while the stalled stream is blocked on its full socket.
    expect_served(0, "100MEDIA-IMG_0001.JPG", photo);
    EXPECT_LT(Clock::now() - stalledAt, std::chrono::seconds(5))
        << "the other app waited for the stalled one";

    // The server closes its end past the stall limit; then what was queued still arrives,
    // followed by the close.
    EXPECT_EQ(testsupport::fds_settle_to(baseFds + 1), baseFds + 1);
    EXPECT_GE(Clock::now() - stalledAt, std::chrono::seconds(5));
    uint64_t received = 0;
    EXPECT_EQ(drain(stalled, received, 20000), app::CLIENT_CLOSED);
    EXPECT_LT(received, bytes.size());
    stalled.close_connection();
    EXPECT_EQ(testsupport::fds_settle_to(baseFds), baseFds) << "descriptors left open";
}

}  // namespace
}  // namespace korvel

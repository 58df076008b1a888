// The running server over loopback, driven by the app client library: sequence and
// checksum checks, event bases per peerID, quit, hostile lengths, stalled and vanishing
// peers, descriptors above 1024.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <vector>

#include "app/client.h"
#include "core/packet.h"
#include "support/temp_dir.h"
#include "support/test_server.h"

namespace korvel {
namespace {

class Server : public testing::Test {
protected:
    testsupport::TempDir tmp;
    std::unique_ptr<testsupport::TestServer> server;
    void SetUp() override {
        testsupport::make_dirs(tmp.file("SD0/DCIM/100MEDIA"));
        server.reset(new testsupport::TestServer(tmp.file("SD0"), tmp.file("cap.xml")));
    }
    void TearDown() override { server.reset(); }
    void connect(app::Client& c, uint32_t peer) {
        ASSERT_EQ(c.connect_to("127.0.0.1", server->port()), app::CLIENT_OK);
        c.peerID = peer;
    }
    static app::Reply reply(app::Client& c, int ms = 3000) {
        app::Reply r;
        EXPECT_EQ(c.read_reply(r, ms), app::CLIENT_OK);
        return r;
    }
    // The position query: a one-packet reply whose peerID field is the serving event
    // base's packet identity, so a fresh event base shows as a new identity.
    static uint32_t identity(app::Client& c, uint32_t seq, uint32_t peer) {
        EXPECT_EQ(c.send_ctrl(peer, seq, MSG_POSITION, MARKER_LAST, 0, 0, 0, 0), app::CLIENT_OK);
        app::Reply r = reply(c);
        EXPECT_TRUE(r.crcOk && r.msgType == MSG_POSITION && r.seqNO == seq);
        return r.peerID;
    }
};

TEST_F(Server, StaleSequenceIsDroppedAndBadChecksumAnswered) {
    app::Client c;
    connect(c, 7);
    identity(c, 10, 7);
    EXPECT_EQ(c.send_ctrl(7, 9, MSG_POSITION, MARKER_LAST, 0, 0, 0, 0), app::CLIENT_OK);
    app::Reply r;
    EXPECT_EQ(c.read_reply(r, 300), app::CLIENT_TIMEOUT) << "a lower seqNO gets no reply";
    identity(c, 10, 7);

    std::vector<uint8_t> bad =
        app::encode_packet(1, MARKER_CONT_MORE, MSG_POSITION, 11, 7, 0, 0, "\0\0\0\0", 4);
    bad.back() ^= 0xFF;
    ASSERT_EQ(c.send_raw(bad.data(), bad.size()), app::CLIENT_OK);
    r = reply(c);
    EXPECT_EQ(std::make_tuple(r.reqType, r.ackCode, r.marker, r.msgType, r.seqNO),
              std::make_tuple(1u, uint32_t{ACK_BAD_CHECKSUM}, 2u, 5u, 11u));
    EXPECT_EQ(c.send_ctrl(7, 10, MSG_POSITION, MARKER_LAST, 0, 0, 0, 0), app::CLIENT_OK);
    EXPECT_EQ(c.read_reply(r, 300), app::CLIENT_TIMEOUT)
        << "the rejected packet's seqNO was accepted before its checksum failed";
}

TEST_F(Server, EventBasesFollowPeerIDsAcrossConnections) {
    app::Client a, b, ones;
    connect(a, 7);
    connect(b, 7);
    uint32_t first = identity(a, 1, 7);
    EXPECT_EQ(identity(b, 2, 7), first) << "one peerID, one event base";
    identity(a, 3, 9);  // a switches: the event base of 7 goes
    EXPECT_NE(identity(b, 1, 7), first);

    uint32_t beforeQuit = identity(a, 4, 9);
    ASSERT_EQ(a.send_ctrl(9, 5, MSG_QUIT, MARKER_LAST, 0, 0, 0, 0), app::CLIENT_OK);
    app::Reply q = reply(a);
    EXPECT_TRUE(q.ackCode == ACK_DONE && q.msgType == MSG_QUIT);
    EXPECT_NE(identity(a, 1, 9), beforeQuit) << "quit keeps the connection, not the event base";

    // peerID 0xFFFFFFFF is a peer like any other, released by the last-package notice.
    connect(ones, 0xFFFFFFFFu);
    uint32_t one = identity(ones, 1, 0xFFFFFFFFu);
    ASSERT_EQ(ones.send_ctrl(0xFFFFFFFFu, 2, MSG_CATALOGUE, MARKER_LAST, 0, 1, 0, ACK_END_OF_DATA),
              app::CLIENT_OK);
    EXPECT_NE(identity(ones, 3, 0xFFFFFFFFu), one);
}

// An oversized length closes only its own connection; half a packet and then silence, or a
// close mid-packet, must not hold the loop for anyone else.
TEST_F(Server, HostileStalledAndVanishingPeersDoNotDelayOthers) {
    app::Client bad, stalled, vanishing, good;
    connect(bad, 1);
    connect(stalled, 4);
    connect(vanishing, 2);
    connect(good, 3);
    std::vector<uint8_t> header = app::encode_packet(0, 1, MSG_DOWNLOAD, 1, 1, 0, 0, "abcd", 4);
    header[13] = 0x01;  // payloadlen 70000
    header[14] = 0x11;
    header[15] = 0x70;
    ASSERT_EQ(bad.send_raw(header.data(), 20), app::CLIENT_OK);
    app::Reply r;
    EXPECT_EQ(bad.read_reply(r, 3000), app::CLIENT_CLOSED);

    std::vector<uint8_t> p = app::encode_packet(1, 1, MSG_POSITION, 1, 1, 0, 0, "\0\0\0\0", 4);
    ASSERT_EQ(stalled.send_raw(p.data(), 10), app::CLIENT_OK);
    ASSERT_EQ(vanishing.send_raw(p.data(), 22), app::CLIENT_OK);
    vanishing.close_connection();
    auto start = std::chrono::steady_clock::now();
    for (uint32_t seq = 1; seq <= 5; ++seq) {
        identity(good, seq, 3);
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    // The stalled peer finishes its packet later and is served normally.
    ASSERT_EQ(stalled.send_raw(p.data() + 10, p.size() - 10), app::CLIENT_OK);
    EXPECT_EQ(reply(stalled).payload, (std::vector<uint8_t>{0x00, 0x00, 0x10, 0x00}));
}

TEST_F(Server, DescriptorsAbove1024AreServed) {
    rlimit lim{};
    getrlimit(RLIMIT_NOFILE, &lim);
    if (lim.rlim_max < 2048) {
        GTEST_SKIP() << "descriptor limit too low to test";
    }
    rlimit raised = lim;
    raised.rlim_cur = 2048;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &raised), 0);
    std::vector<int> filler;
    for (int i = 0; i < 1100; ++i) {
        filler.push_back(dup(0));
    }
    app::Client c;
    connect(c, 5);
    EXPECT_GE(c.fd(), 1024);
    identity(c, 1, 5);
    identity(c, 2, 5);
    c.close_connection();
    for (int fd : filler) {
        close(fd);
    }
    server.reset();
    setrlimit(RLIMIT_NOFILE, &lim);
}

}  // namespace
}  // namespace korvel

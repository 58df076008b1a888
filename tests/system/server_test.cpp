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
    // The position query: a one-packet reply whose peerID field is the serving event
    // base's packet identity, so a fresh event base shows as a new identity.
    static uint32_t identity(app::Client& c, uint32_t seq, uint32_t peer) {
        EXPECT_EQ(c.send_ctrl(peer, seq, 5, 1, 0, 0, 0, 0), app::CLIENT_OK);
        app::Reply r;
        EXPECT_EQ(c.read_reply(r, 3000), app::CLIENT_OK);
        EXPECT_TRUE(r.crcOk);
        EXPECT_EQ(r.msgType, 5u);
        EXPECT_EQ(r.seqNO, seq);
        return r.peerID;
    }
};

TEST_F(Server, StaleSequenceIsDroppedAndBadChecksumAnswered) {
    app::Client c;
    connect(c, 7);
    identity(c, 10, 7);
    EXPECT_EQ(c.send_ctrl(7, 9, 5, 1, 0, 0, 0, 0), app::CLIENT_OK);
    app::Reply r;
    EXPECT_EQ(c.read_reply(r, 300), app::CLIENT_TIMEOUT) << "a lower seqNO gets no reply";
    identity(c, 10, 7);

    std::vector<uint8_t> bad = app::encode_packet(1, 2, 5, 11, 7, 0, 0, "\0\0\0\0", 4);
    bad.back() ^= 0xFF;
    ASSERT_EQ(c.send_raw(bad.data(), bad.size()), app::CLIENT_OK);
    ASSERT_EQ(c.read_reply(r, 3000), app::CLIENT_OK);
    EXPECT_EQ(r.reqType, 1u);
    EXPECT_EQ(r.ackCode, ACK_BAD_CHECKSUM);
    EXPECT_EQ(r.marker, 2u);
    EXPECT_EQ(r.msgType, 5u);
    EXPECT_EQ(r.seqNO, 11u);
    EXPECT_EQ(c.send_ctrl(7, 10, 5, 1, 0, 0, 0, 0), app::CLIENT_OK);
    EXPECT_EQ(c.read_reply(r, 300), app::CLIENT_TIMEOUT)
        << "the rejected packet's seqNO was accepted before its checksum failed";
}

TEST_F(Server, EventBasesFollowPeerIDsAcrossConnections) {
    app::Client a, b;
    connect(a, 7);
    connect(b, 7);
    uint32_t first = identity(a, 1, 7);
    EXPECT_EQ(identity(b, 2, 7), first) << "one peerID, one event base";
    identity(a, 3, 9);  // a switches: the event base of 7 goes
    EXPECT_NE(identity(b, 1, 7), first);

    uint32_t beforeQuit = identity(a, 4, 9);
    ASSERT_EQ(a.send_ctrl(9, 5, 7, 1, 0, 0, 0, 0), app::CLIENT_OK);
    app::Reply q;
    ASSERT_EQ(a.read_reply(q, 3000), app::CLIENT_OK);
    EXPECT_EQ(q.ackCode, ACK_DONE);
    EXPECT_EQ(q.msgType, 7u);
    EXPECT_NE(identity(a, 1, 9), beforeQuit) << "quit keeps the connection, not the event base";
}

TEST_F(Server, AllOnesPeerIDIsServedAndReleased) {
    app::Client c;
    connect(c, 0xFFFFFFFFu);
    uint32_t first = identity(c, 1, 0xFFFFFFFFu);
    ASSERT_EQ(c.send_ctrl(0xFFFFFFFFu, 2, 0, 1, 0, 1, 0, ACK_END_OF_DATA), app::CLIENT_OK);
    EXPECT_NE(identity(c, 3, 0xFFFFFFFFu), first);
}

TEST_F(Server, OversizedLengthClosesOnlyThatConnection) {
    app::Client bad, good;
    connect(bad, 1);
    connect(good, 2);
    std::vector<uint8_t> header = app::encode_packet(0, 1, 2, 1, 1, 0, 0, "abcd", 4);
    header[12] = 0;
    header[13] = 0x01;
    header[14] = 0x11;
    header[15] = 0x70;  // 70000
    ASSERT_EQ(bad.send_raw(header.data(), 20), app::CLIENT_OK);
    app::Reply r;
    EXPECT_EQ(bad.read_reply(r, 3000), app::CLIENT_CLOSED);
    identity(good, 1, 2);
}

// Half a packet and then silence must not hold the loop for anyone else.
TEST_F(Server, StalledAndVanishingPeersDoNotDelayOthers) {
    app::Client stalled, vanishing, good;
    connect(stalled, 1);
    connect(vanishing, 2);
    connect(good, 3);
    std::vector<uint8_t> p = app::encode_packet(1, 1, 5, 1, 1, 0, 0, "\0\0\0\0", 4);
    ASSERT_EQ(stalled.send_raw(p.data(), 10), app::CLIENT_OK);
    ASSERT_EQ(vanishing.send_raw(p.data(), 22), app::CLIENT_OK);
    usleep(50000);
    vanishing.close_connection();
    auto start = std::chrono::steady_clock::now();
    for (uint32_t seq = 1; seq <= 5; ++seq) {
        identity(good, seq, 3);
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    // The stalled peer finishes its packet later and is served normally.
    ASSERT_EQ(stalled.send_raw(p.data() + 10, p.size() - 10), app::CLIENT_OK);
    app::Reply r;
    ASSERT_EQ(stalled.read_reply(r, 3000), app::CLIENT_OK);
    EXPECT_EQ(r.payload, (std::vector<uint8_t>{0x00, 0x00, 0x10, 0x00}));
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

// The running server over loopback, driven by the app client library: sequence and
// checksum checks, event bases per peerID, quit, descriptors above 1024.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <vector>

#include "app/client.h"
#include "core/packet.h"
#include "support/test_server.h"

namespace korvel {
namespace {

class Server : public testsupport::ServedCard {
protected:
    void SetUp() override {
        ServedCard::SetUp();
        start();
    }
    // The position query: a one-packet reply whose peerID field is the serving event
    // base's packet identity, so a fresh event base shows as a new identity.
    static uint32_t identity(app::Client& c, uint32_t seq, uint32_t id) {
        app::Reply r;
        EXPECT_EQ(c.send_ctrl(id, seq, MSG_POSITION, MARKER_LAST, 0, 0, 0, 0), app::CLIENT_OK);
        EXPECT_EQ(c.read_reply(r, 3000), app::CLIENT_OK);
        EXPECT_TRUE(r.crcOk && r.msgType == MSG_POSITION && r.seqNO == seq);
        return r.peerID;
    }
    // A position query that must go unanswered.
    static void expect_dropped(app::Client& c, uint32_t seq, const char* why) {
        app::Reply r;
        EXPECT_EQ(c.send_ctrl(7, seq, MSG_POSITION, MARKER_LAST, 0, 0, 0, 0), app::CLIENT_OK);
        EXPECT_EQ(c.read_reply(r, 300), app::CLIENT_TIMEOUT) << why;
    }
};

TEST_F(Server, StaleSequenceIsDroppedAndBadChecksumAnswered) {
    app::Client c;
    ASSERT_TRUE(testsupport::connect_app(c, server->port(), 7));
    identity(c, 10, 7);
    expect_dropped(c, 9, "a lower seqNO gets no reply");
    identity(c, 10, 7);

    std::vector<uint8_t> bad =
        app::encode_packet(1, MARKER_CONT_MORE, MSG_POSITION, 11, 7, 0, 0, "\0\0\0\0", 4);
    bad.back() ^= 0xFF;
    ASSERT_EQ(c.send_raw(bad.data(), bad.size()), app::CLIENT_OK);
    app::Reply r;
    ASSERT_EQ(c.read_reply(r, 3000), app::CLIENT_OK);
    EXPECT_EQ(std::make_tuple(r.reqType, r.ackCode, r.marker, r.msgType, r.seqNO),
              std::make_tuple(1u, uint32_t{ACK_BAD_CHECKSUM}, 2u, 5u, 11u));
    expect_dropped(c, 10, "the rejected packet's seqNO was accepted before its checksum failed");
}

TEST_F(Server, EventBasesFollowPeerIDsAcrossConnections) {
    app::Client a, b, ones;
    ASSERT_TRUE(testsupport::connect_app(a, server->port(), 7));
    ASSERT_TRUE(testsupport::connect_app(b, server->port(), 7));
    uint32_t first = identity(a, 1, 7);
    EXPECT_EQ(identity(b, 2, 7), first) << "one peerID, one event base";
    identity(a, 3, 9);  // a switches: the event base of 7 goes
    EXPECT_NE(identity(b, 1, 7), first);

    uint32_t beforeQuit = identity(a, 4, 9);
    app::Reply q;
    ASSERT_EQ(a.send_ctrl(9, 5, MSG_QUIT, MARKER_LAST, 0, 0, 0, 0), app::CLIENT_OK);
    ASSERT_EQ(a.read_reply(q, 3000), app::CLIENT_OK);
    EXPECT_TRUE(q.ackCode == ACK_DONE && q.msgType == MSG_QUIT);
    EXPECT_NE(identity(a, 1, 9), beforeQuit) << "quit keeps the connection, not the event base";

    // peerID 0xFFFFFFFF is a peer like any other, released by the last-package notice.
    ASSERT_TRUE(testsupport::connect_app(ones, server->port(), 0xFFFFFFFFu));
    uint32_t one = identity(ones, 1, 0xFFFFFFFFu);
    ASSERT_EQ(ones.send_ctrl(0xFFFFFFFFu, 2, MSG_CATALOGUE, MARKER_LAST, 0, 1, 0, ACK_END_OF_DATA),
              app::CLIENT_OK);
    EXPECT_NE(identity(ones, 3, 0xFFFFFFFFu), one);
}

TEST_F(Server, DescriptorsAbove1024AreServed) {
    rlimit lim{};
    getrlimit(RLIMIT_NOFILE, &lim);
    if (lim.rlim_max < 2048) {
        GTEST_SKIP() << "descriptor limit too low to test";
    }
    rlimit raised{2048, lim.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &raised), 0);
    std::vector<int> filler;
    for (int i = 0; i < 1100; ++i) {
        filler.push_back(dup(0));
    }
    app::Client c;
    ASSERT_TRUE(testsupport::connect_app(c, server->port(), 5));
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

// The client codec over a socketpair, then korvel-app's commands and the Wireshark dissector
// end to end against the real server loop, the card in a temporary directory.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <stdio.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "app/tool.h"
#include "core/packet.h"
#include "support/soak_client.h"
#include "support/temp_dir.h"
#include "support/test_server.h"

namespace korvel::app {
namespace {

std::vector<uint8_t> hex(const char* text) {
    std::vector<uint8_t> out;
    std::istringstream in(text);
    for (unsigned b = 0; in >> std::hex >> b;) {
        out.push_back(static_cast<uint8_t>(b));
    }
    return out;
}

const char* const QUIT_ACK =
    "a7 00 00 05 00 01 23 45 00 00 00 00 00 00 00 04 00 0f 42 40 80 00 fb 00 af fc 09 28";
const char* const SIZE_REPLY =
    "22 00 00 05 00 01 23 45 00 00 00 00 00 00 00 04 00 0f 42 40 00 00 10 00 0e 87 1e ee";

// The ack word of a control packet enters the checksum reversed, a data payload as it stands;
// a location longer than its 1024-byte field is cut there and never spills into the words.
TEST(ClientCodec, EncodesTheReferencePacketsAndTheConfigurationPayload) {
    EXPECT_EQ(encode_packet(1, 1, 7, 5, 0x12345, 0, 1000000, hex("80 00 fb 00").data(), 4),
              hex(QUIT_ACK));
    EXPECT_EQ(encode_packet(0, 1, 2, 5, 0x12345, 0, 1000000, hex("00 00 10 00").data(), 4),
              hex(SIZE_REPLY));
    std::vector<uint8_t> p = build_config_payload(512, 1, std::string(1500, 'x'), true, 3);
    ASSERT_EQ(p.size(), 1032u);
    EXPECT_EQ(p[1023], 'x');
    EXPECT_EQ(std::vector<uint8_t>(p.begin() + 1024, p.end()), hex("80 03 02 00 00 00 00 01"));
}

// A client on one end of a socketpair; the test plays the server on the other, sv[1].
TEST(ClientCodec, ReadReplyFlagsCorruptionRefusesImpossibleLengthsAndSeesTheClose) {
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    Client c;
    c.adopt_fd(sv[0]);
    Reply r;
    auto put = [&](const std::vector<uint8_t>& b) {
        ASSERT_EQ(write(sv[1], b.data(), b.size()), ssize_t(b.size()));
    };
    std::vector<uint8_t> bad = hex(SIZE_REPLY);
    bad[22] ^= 0x01;
    put(bad);
    put(hex(QUIT_ACK));
    ASSERT_EQ(c.read_reply(r, 1000), CLIENT_OK);
    EXPECT_FALSE(r.crcOk);
    ASSERT_EQ(c.read_reply(r, 1000), CLIENT_OK);  // still in step after the bad one
    EXPECT_TRUE(r.crcOk && r.msgType == 7u);
    // Data over 65536 bytes; a control packet with no ack word; one with two words.
    for (auto [reqType, len] : {std::pair<uint32_t, uint32_t>{0, 65537}, {1, 0}, {1, 8}}) {
        std::vector<uint8_t> h = encode_packet(reqType, 1, 0, 1, 1, 0, 0, nullptr, 0);
        for (int i = 0; i < 4; ++i) {
            h[12 + i] = static_cast<uint8_t>(len >> (24 - 8 * i));
        }
        put({h.begin(), h.begin() + 20});
        EXPECT_EQ(c.read_reply(r, 1000), CLIENT_BAD_PACKET) << reqType << "/" << len;
    }
    put({0xa7, 0, 0});  // a packet cut short, then the close
    shutdown(sv[1], SHUT_WR);
    EXPECT_EQ(c.read_reply(r, 1000), CLIENT_CLOSED);
    close(sv[1]);
}

using testsupport::AppRun;
using testsupport::exists;
using testsupport::pattern;
using testsupport::read_file;

class Tool : public testsupport::ServedCard {
protected:
    static bool has(const AppRun& r, const std::string& text) {
        return (r.out + r.err).find(text) != std::string::npos;
    }
    std::string outDir = tmp.path();
};

TEST_F(Tool, DownloadsAndResumesWhereverTheServerMapsItsRegion) {
    const struct {
        size_t size, have;  // have: bytes already in the local file (a cut transfer)
        const char *packsize, *blocks;
    } cases[] = {{300000, 0, "4096", "4"},     // fresh, many bursts
                 {100000, 5000, "1000", "3"},  // resume mid-page, unaligned packets
                 {10000, 5000, "4096", "4"},   // resume inside the region the request mapped
                 {9000, 9000, "4096", "1"},    // already complete
                 {9000, 9010, "4096", "2"}};   // a longer local file starts over
    for (size_t i = 0; i < std::size(cases); ++i) {
        add("F" + std::to_string(i) + ".MP4", pattern(cases[i].size, i));
    }
    start();
    for (size_t i = 0; i < std::size(cases); ++i) {
        SCOPED_TRACE(i);
        std::string name = "100MEDIA-F" + std::to_string(i) + ".MP4";
        std::string want = pattern(cases[i].size, i), local = outDir + "/" + name;
        testsupport::write_file(local, (want + "0123456789").substr(0, cases[i].have));
        AppRun r = app({"get", name, "-o", outDir, "--packsize", cases[i].packsize, "--blocks",
                        cases[i].blocks});
        ASSERT_EQ(r.rc, 0) << r.out;
        EXPECT_TRUE(read_file(local) == want);
        bool resumes = cases[i].have != 0 && cases[i].have <= cases[i].size;
        EXPECT_EQ(has(r, "resuming at " + std::to_string(cases[i].have)), resumes);
    }
}

TEST_F(Tool, EachOutcomeHasItsOwnExitCodeAndMessage) {
    // Loopback ports where the kernel accepts and nobody answers, or that refuse outright.
    auto port_of = [](int fd, bool listening) {
        sockaddr_in a{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
        socklen_t len = sizeof a;
        EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&a), len) | (listening ? listen(fd, 4) : 0) |
                      getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len),
                  0);
        return std::to_string(ntohs(a.sin_port));
    };
    int silent = socket(AF_INET, SOCK_STREAM, 0), closed = socket(AF_INET, SOCK_STREAM, 0);
    const std::string silentPort = port_of(silent, true), closedPort = port_of(closed, false);
    std::string cap = "<camera_definition/>\n" + std::string(9000, 'x');
    testsupport::write_file(tmp.file("cap.xml"), cap);
    add("IMG_0001.JPG", "not really a jpeg");
    add("EMPTY.MP4", "");
    start();
    const struct {
        std::vector<std::string> args;
        int rc;
        const char* text;
    } cases[] = {
        {{"get", "100MEDIA-NOPE.JPG", "-o", outDir}, EXIT_NOT_FOUND, "not found"},
        {{"get", "100MEDIA-EMPTY.MP4", "-o", outDir}, EXIT_FAILED, "failed"},
        {{"config", "--packsize", "65535", "--blocks", "3201"}, EXIT_TOO_LARGE, "too large"},
        {{"--packsize", "64", "--blocks", "2", "ls"}, 0, "100MEDIA-IMG_0001.JPG  JPG"},  // paged
        {{"rm", "100MEDIA-IMG_0001.JPG", "..-x.JPG"},
         EXIT_BAD_NAME,
         "ack: done (0xFB00)\nack: bad name (0xFB09)\n"},
        {{"cap", "-o", outDir + "/c"}, 0, ""},
        {{"frobnicate"}, EXIT_USAGE, "unknown command"},
        {{"--port", silentPort, "--timeout", "200", "pos"}, EXIT_TIMEOUT, "timed out"},
        {{"--port", closedPort, "ls"}, EXIT_REFUSED, "connection refused"},
    };
    for (const auto& c : cases) {
        AppRun r = app(c.args);
        EXPECT_EQ(r.rc, c.rc) << c.args[0] << ": " << r.err;
        EXPECT_TRUE(has(r, c.text)) << c.args[0] << ": " << r.out << r.err;
    }
    close(silent);
    close(closed);
    EXPECT_FALSE(exists(outDir + "/100MEDIA-NOPE.JPG"));
    EXPECT_FALSE(exists(media + "/IMG_0001.JPG"));
    EXPECT_TRUE(read_file(outDir + "/c") == cap);
}

using Tap = std::pair<bool, std::vector<uint8_t>>;  // from the app?, the bytes

// One tshark field over every decoded packet in order, ','-joined (as within a frame).
std::string column(const std::string& text, size_t index) {
    std::string out;
    std::istringstream lines(text);
    for (std::string line, col; std::getline(lines, line);) {
        std::istringstream cols(line);
        for (size_t i = 0; i <= index && std::getline(cols, col, '\t'); ++i) {
        }
        out += col.empty() || out.empty() ? col : "," + col;
    }
    return out;
}

TEST_F(Tool, DissectorDecodesARealSessionWithChecksumsAndReassembly) {
    ASSERT_TRUE(testsupport::on_path("tshark") && testsupport::on_path("text2pcap"))
        << "tshark/text2pcap missing (scripts/deps.sh installs them)";
    add("IMG_0001.JPG", pattern(10000, 3));
    start();
    std::vector<Tap> taps;
    Client c;
    c.set_tap([&](bool fromApp, const uint8_t* b, size_t n) {
        taps.emplace_back(fromApp, std::vector<uint8_t>(b, b + n));
    });
    Reply r;
    auto ok = [](int rc) { return rc == CLIENT_OK; };
    auto sendBadCrc = [&] {
        std::vector<uint8_t> b = encode_packet(1, 1, 5, c.seqNO++, 0x1234, 0, 0, "\0\0\0\0", 4);
        b.back() ^= 0xFF;
        return c.send_raw(b.data(), b.size());
    };
    ASSERT_TRUE(testsupport::connect_app(c, server->port(), 0x1234));
    ASSERT_TRUE(ok(c.configure(4096, 2)) && ok(c.read_reply(r)) &&
                ok(c.request_download("100MEDIA-IMG_0001.JPG")) && ok(c.read_reply(r)) &&
                ok(c.ctrl(3, 0)) && ok(c.read_reply(r)) && ok(c.read_reply(r)) &&
                ok(sendBadCrc()) && ok(c.read_reply(r)) && ok(c.quit()) && ok(c.read_reply(r)));
    ASSERT_EQ(taps.size(), 11u);

    // Packet 5 (the first streamed one) goes in three segments; the checksum rejection (8)
    // and the quit's acknowledgement (10) share one, after the quit request (9).
    std::vector<Tap> segs(taps.begin(), taps.begin() + 5);
    const std::vector<uint8_t>& p5 = taps[5].second;
    for (auto [from, to] : {std::pair<size_t, size_t>{0, 7}, {7, 3000}, {3000, p5.size()}}) {
        segs.push_back({false, {p5.begin() + from, p5.begin() + to}});
    }
    segs.insert(segs.end(), {taps[6], taps[7], taps[9], taps[8]});
    segs.back().second.insert(segs.back().second.end(), taps[10].second.begin(),
                              taps[10].second.end());
    std::string dump;
    for (const auto& [fromApp, bytes] : segs) {
        dump += fromApp ? "I 000000" : "O 000000";
        for (uint8_t b : bytes) {
            dump += {' ', "0123456789abcdef"[b >> 4], "0123456789abcdef"[b & 15]};
        }
        dump += "\n";
    }
    testsupport::write_file(tmp.file("s.txt"), dump);
    std::string port = std::to_string(server->port());
    std::string out = testsupport::run_command(
        "text2pcap -q -D -T 51000," + port + " " + tmp.file("s.txt") + " " + tmp.file("s.pcap") +
        " && tshark -r " + tmp.file("s.pcap") +
        " -X lua_script:" KORVEL_SOURCE_DIR "/tools/wireshark/korvel.lua -d tcp.port==" + port +
        ",korvel -T fields -e korvel.msgname -e korvel.crc.ok -e korvel.size"
        " -e korvel.config.packsize -e korvel.config.blocks -e korvel.offset"
        " 2>/dev/null");
    EXPECT_EQ(column(out, 0),
              "config,config ACK_DONE,download,download,chunk,chunk,chunk,position,quit,"
              "position ACK_BAD_CHECKSUM,quit ACK_DONE")
        << out;
    EXPECT_EQ(column(out, 1), "1,1,1,1,1,1,1,0,1,1,1");
    EXPECT_EQ(column(out, 2) + "/" + column(out, 3) + "/" + column(out, 4), "10000/4096/2");
    // The split packet came back whole: packets 5 and 6 stream region offsets 0 and 4096.
    EXPECT_EQ(column(out, 5).substr(0, 17), "0,0,0,0,0,0,4096,");
}

}  // namespace
}  // namespace korvel::app

// The Wireshark dissector over a real session: the client's tap records every packet of a
// session with the in-process server, a tiny pcap writer lays them out as TCP segments
// (one packet split across three segments, two replies sharing one), and tshark decodes
// the file with tools/wireshark/korvel.lua.
#include <gtest/gtest.h>
#include <stdio.h>

#include <cstring>
#include <fstream>
#include <sstream>

#include "app_support.h"
#include "core/packet.h"
#include "support/shell.h"

namespace korvel {
namespace apptest {
namespace {

struct Segment {
    bool fromApp;
    std::vector<uint8_t> bytes;
};

void put16(std::string& s, uint16_t v) {
    s.push_back(static_cast<char>(v >> 8));
    s.push_back(static_cast<char>(v));
}
void put32(std::string& s, uint32_t v) {
    put16(s, static_cast<uint16_t>(v >> 16));
    put16(s, static_cast<uint16_t>(v));
}
void put32le(std::string& s, uint32_t v) {
    for (int i = 0; i < 4; ++i) {
        s.push_back(static_cast<char>(v >> (8 * i)));
    }
}

// Ethernet + IPv4 + TCP around each segment; sequence numbers follow the bytes, so the
// reader reassembles as it would a live capture. Checksums are left 0 (not verified).
std::string make_pcap(const std::vector<Segment>& segs, uint16_t serverPort) {
    const uint16_t appPort = 51000;
    std::string f;
    put32le(f, 0xa1b2c3d4);
    f += std::string("\x02\x00\x04\x00", 4);
    put32le(f, 0);
    put32le(f, 0);
    put32le(f, 262144);
    put32le(f, 1);  // Ethernet
    uint32_t seq[2] = {1000, 5000};
    uint32_t usec = 0;
    for (const Segment& s : segs) {
        std::string p(12, '\0');
        p += std::string("\x08\x00", 2);
        put16(p, 0x4500);
        put16(p, static_cast<uint16_t>(40 + s.bytes.size()));
        put32(p, 0x00004000);
        put32(p, 0x40060000);  // TTL 64, TCP, checksum 0
        put32(p, 0x7f000001);
        put32(p, 0x7f000001);
        put16(p, s.fromApp ? appPort : serverPort);
        put16(p, s.fromApp ? serverPort : appPort);
        put32(p, seq[s.fromApp ? 0 : 1]);
        put32(p, seq[s.fromApp ? 1 : 0]);
        put32(p, 0x5018ffff);  // header length 5 words, PSH|ACK, window
        put32(p, 0);
        p.append(reinterpret_cast<const char*>(s.bytes.data()), s.bytes.size());
        seq[s.fromApp ? 0 : 1] += static_cast<uint32_t>(s.bytes.size());
        usec += 1000;
        put32le(f, 1700000000);
        put32le(f, usec);
        put32le(f, static_cast<uint32_t>(p.size()));
        put32le(f, static_cast<uint32_t>(p.size()));
        f += p;
    }
    return f;
}

using testsupport::run_command;

// One column of tshark's field output, every packet of every frame in order.
std::vector<std::string> column(const std::string& text, size_t index) {
    std::vector<std::string> out;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        std::vector<std::string> cols;
        std::istringstream cs(line);
        std::string c;
        while (std::getline(cs, c, '\t')) {
            cols.push_back(c);
        }
        if (index < cols.size() && !cols[index].empty()) {
            std::istringstream vs(cols[index]);
            while (std::getline(vs, c, ',')) {
                out.push_back(c);
            }
        }
    }
    return out;
}

TEST(Dissector, DecodesARealSessionWithChecksumsAndReassembly) {
    ASSERT_FALSE(run_command("command -v tshark").empty())
        << "tshark is not on PATH (scripts/deps.sh installs it)";
    ServedCard card;
    std::string file = pattern_bytes(10000, 3);
    card.put("IMG_0001.JPG", file);
    card.start();

    std::vector<Segment> taps;
    app::Client c;
    c.set_tap([&](bool fromApp, const uint8_t* b, size_t n) {
        taps.push_back({fromApp, std::vector<uint8_t>(b, b + n)});
    });
    app::Reply r;
    ASSERT_EQ(c.connect_to("127.0.0.1", card.server->port()), app::CLIENT_OK);
    c.peerID = 0x1234;
    ASSERT_EQ(c.configure(4096, 2), app::CLIENT_OK);
    ASSERT_EQ(c.read_reply(r), app::CLIENT_OK);
    ASSERT_EQ(c.request_download("100MEDIA-IMG_0001.JPG"), app::CLIENT_OK);
    ASSERT_EQ(c.read_reply(r), app::CLIENT_OK);
    ASSERT_EQ(c.ctrl(3, 0), app::CLIENT_OK);
    ASSERT_EQ(c.read_reply(r), app::CLIENT_OK);
    ASSERT_EQ(c.read_reply(r), app::CLIENT_OK);
    std::vector<uint8_t> bad = app::encode_packet(1, 1, 5, c.seqNO++, 0x1234, 0, 0, "\0\0\0\0", 4);
    bad.back() ^= 0xFF;
    ASSERT_EQ(c.send_raw(bad.data(), bad.size()), app::CLIENT_OK);
    ASSERT_EQ(c.read_reply(r), app::CLIENT_OK);
    ASSERT_EQ(c.quit(), app::CLIENT_OK);
    ASSERT_EQ(c.read_reply(r), app::CLIENT_OK);
    ASSERT_EQ(taps.size(), 11u);

    // Segment the session: split the first streamed packet (index 5) in three, and let the
    // checksum rejection (8) and the quit's acknowledgement (10) share one segment, after
    // the quit request (9) on the other direction.
    std::vector<Segment> segs;
    for (size_t i = 0; i < taps.size(); ++i) {
        const std::vector<uint8_t>& b = taps[i].bytes;
        if (i == 5) {
            segs.push_back({false, {b.begin(), b.begin() + 7}});
            segs.push_back({false, {b.begin() + 7, b.begin() + 3000}});
            segs.push_back({false, {b.begin() + 3000, b.end()}});
        } else if (i == 10) {
            Segment pair = taps[8];
            pair.bytes.insert(pair.bytes.end(), b.begin(), b.end());
            segs.push_back(pair);
        } else if (i != 8) {
            segs.push_back(taps[i]);
        }
    }
    testsupport::TempDir tmp;
    uint16_t port = card.server->port();
    std::ofstream(tmp.file("s.pcap"), std::ios::binary) << make_pcap(segs, port);

    std::string cmd = "tshark -r " + tmp.file("s.pcap") +
                      " -X lua_script:" KORVEL_SOURCE_DIR
                      "/tools/wireshark/korvel.lua -d tcp.port==" +
                      std::to_string(port) +
                      ",korvel -T fields -e korvel.msgname -e korvel.crc.ok -e korvel.seqno"
                      " -e korvel.marker -e korvel.ackname -e korvel.size"
                      " -e korvel.config.packsize -e korvel.config.blocks -e korvel.offset"
                      " -e korvel.peerid 2>/dev/null";
    std::string out = run_command(cmd);
    std::vector<std::string> names = column(out, 0);
    std::vector<std::string> want = {
        "config",       "config ACK_DONE", "download", "download", "chunk",
        "chunk",        "chunk",           "position", "quit",     "position ACK_BAD_CHECKSUM",
        "quit ACK_DONE"};
    EXPECT_EQ(names, want) << out;
    std::vector<std::string> crc = column(out, 1);
    ASSERT_EQ(crc.size(), 11u) << out;
    for (size_t i = 0; i < crc.size(); ++i) {
        EXPECT_EQ(crc[i], i == 7 ? "0" : "1") << "packet " << i;
    }
    EXPECT_EQ(column(out, 5), std::vector<std::string>{"10000"});
    EXPECT_EQ(column(out, 6), std::vector<std::string>{"4096"});
    EXPECT_EQ(column(out, 7), std::vector<std::string>{"2"});
    EXPECT_EQ(column(out, 4),
              (std::vector<std::string>{"ACK_DONE", "ACK_BAD_CHECKSUM", "ACK_DONE"}));
    // The split packet came back whole: the two streamed packets at region offsets 0, 4096.
    std::vector<std::string> offsets = column(out, 8);
    ASSERT_GE(offsets.size(), 7u);
    EXPECT_EQ(offsets[5], "0");
    EXPECT_EQ(offsets[6], "4096");
    EXPECT_EQ(column(out, 9)[0], "4660");  // the app's peerID, 0x1234
}

}  // namespace
}  // namespace apptest
}  // namespace korvel

// The Wireshark dissector over a real session: the client's tap records every packet of a
// session with the in-process server, text2pcap lays them out as TCP segments (one packet
// split across three, two replies sharing one) and tshark decodes them with korvel.lua.
#include <gtest/gtest.h>

#include <sstream>

#include "app_support.h"
#include "support/shell.h"

namespace korvel::apptest {
namespace {

struct Segment {
    bool fromApp;
    std::vector<uint8_t> bytes;
};

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

TEST(Dissector, DecodesARealSessionWithChecksumsAndReassembly) {
    ASSERT_TRUE(testsupport::on_path("tshark") && testsupport::on_path("text2pcap"))
        << "tshark/text2pcap missing (scripts/deps.sh installs them)";
    ServedCard card;
    card.put("IMG_0001.JPG", pattern_bytes(10000, 3));
    card.start(card.tmp.file("no-cap"));
    std::vector<Segment> taps;
    app::Client c;
    c.set_tap([&](bool fromApp, const uint8_t* b, size_t n) {
        taps.push_back({fromApp, std::vector<uint8_t>(b, b + n)});
    });
    app::Reply r;
    auto ok = [](int rc) { return rc == app::CLIENT_OK; };
    auto sendBadCrc = [&] {
        std::vector<uint8_t> b =
            app::encode_packet(1, 1, 5, c.seqNO++, 0x1234, 0, 0, "\0\0\0\0", 4);
        b.back() ^= 0xFF;
        return c.send_raw(b.data(), b.size());
    };
    ASSERT_TRUE(ok(c.connect_to("127.0.0.1", card.server->port())));
    c.peerID = 0x1234;
    ASSERT_TRUE(ok(c.configure(4096, 2)) && ok(c.read_reply(r)) &&
                ok(c.request_download("100MEDIA-IMG_0001.JPG")) && ok(c.read_reply(r)) &&
                ok(c.ctrl(3, 0)) && ok(c.read_reply(r)) && ok(c.read_reply(r)) &&
                ok(sendBadCrc()) && ok(c.read_reply(r)) && ok(c.quit()) && ok(c.read_reply(r)));
    ASSERT_EQ(taps.size(), 11u);

    // Packet 5 (the first streamed one) goes in three segments; the checksum rejection (8)
    // and the quit's acknowledgement (10) share one, after the quit request (9).
    std::vector<Segment> segs(taps.begin(), taps.begin() + 5);
    const std::vector<uint8_t>& p5 = taps[5].bytes;
    for (auto [from, to] : {std::pair<size_t, size_t>{0, 7}, {7, 3000}, {3000, p5.size()}}) {
        segs.push_back({false, {p5.begin() + from, p5.begin() + to}});
    }
    segs.insert(segs.end(), {taps[6], taps[7], taps[9], taps[8]});
    segs.back().bytes.insert(segs.back().bytes.end(), taps[10].bytes.begin(), taps[10].bytes.end());
    std::string dump;
    for (const Segment& s : segs) {
        dump += s.fromApp ? "I 000000" : "O 000000";
        for (uint8_t b : s.bytes) {
            char hex[4];
            snprintf(hex, sizeof hex, " %02x", b);
            dump += hex;
        }
        dump += "\n";
    }
    testsupport::write_file(card.tmp.file("s.txt"), dump);
    std::string port = std::to_string(card.server->port());
    std::string out = testsupport::run_command(
        "text2pcap -q -D -T 51000," + port + " " + card.tmp.file("s.txt") + " " +
        card.tmp.file("s.pcap") + " && tshark -r " + card.tmp.file("s.pcap") +
        " -X lua_script:" KORVEL_SOURCE_DIR "/tools/wireshark/korvel.lua -d tcp.port==" + port +
        ",korvel -T fields -e korvel.msgname -e korvel.crc.ok -e korvel.ackname -e korvel.size"
        " -e korvel.config.packsize -e korvel.config.blocks -e korvel.offset -e korvel.peerid"
        " 2>/dev/null");
    EXPECT_EQ(column(out, 0),
              "config,config ACK_DONE,download,download,chunk,chunk,chunk,position,quit,"
              "position ACK_BAD_CHECKSUM,quit ACK_DONE")
        << out;
    EXPECT_EQ(column(out, 1), "1,1,1,1,1,1,1,0,1,1,1");
    EXPECT_EQ(column(out, 2), "ACK_DONE,ACK_BAD_CHECKSUM,ACK_DONE");
    EXPECT_EQ(column(out, 3) + "/" + column(out, 4) + "/" + column(out, 5), "10000/4096/2");
    // The split packet came back whole: packets 5 and 6 stream region offsets 0 and 4096.
    EXPECT_EQ(column(out, 6).substr(0, 17), "0,0,0,0,0,0,4096,");
    EXPECT_EQ(column(out, 7).substr(0, 5), "4660,");  // the app's peerID, 0x1234
}

}  // namespace
}  // namespace korvel::apptest

// korvel-app's commands end to end against the real server loop on a free port.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "app_support.h"

namespace korvel::apptest {
namespace {

using testsupport::read_file;

class Tool : public ::testing::Test {
protected:
    ServedCard card;
    bool has(const ToolRun& r, const std::string& text) { return r.out.find(text) != r.out.npos; }
};

TEST_F(Tool, ListsTheCatalogueAcrossManySmallBursts) {
    for (int i = 0; i < 30; ++i) {
        card.put("IMG_" + std::to_string(1000 + i) + ".JPG", "jpeg");
    }
    card.put("VID_0100.MP4", "mp4");
    card.put("VID_0100.2nd", "second");
    card.start(card.tmp.file("no-cap"));
    // 64-byte packets, 2 per burst: dozens of continuation requests, same JSON as one burst.
    ToolRun paged = card.tool({"--packsize", "64", "--blocks", "2", "ls", "--json"});
    EXPECT_EQ(paged.rc, 0) << paged.err;
    EXPECT_EQ(paged.out, card.tool({"ls", "--json"}).out);
    ToolRun table = card.tool({"--packsize", "100", "--blocks", "1", "ls"});
    EXPECT_TRUE(has(table, "100MEDIA-VID_0100.MP4  MP4") && has(table, "100MEDIA-VID_0100.2nd") &&
                has(table, "100MEDIA-IMG_1029.JPG") && has(table, "31 file(s)"))
        << table.out;
}

TEST_F(Tool, DownloadsAndResumesWhereverTheServerMapsItsRegion) {
    const struct {
        size_t size, have;  // have: bytes already in the local file (a cut transfer)
        const char *packsize, *blocks;
    } cases[] = {{300000, 0, "4096", "4"},     // fresh, many bursts
                 {100000, 5000, "4096", "4"},  // resume mid-page past the first region
                 {10000, 5000, "4096", "4"},   // resume inside the region the request mapped
                 {70001, 12345, "1000", "3"},  // unaligned packets
                 {9000, 9000, "4096", "1"},    // already complete
                 {9000, 9010, "4096", "2"}};   // a longer local file starts over
    for (size_t i = 0; i < std::size(cases); ++i) {
        card.put("F" + std::to_string(i) + ".MP4", pattern_bytes(cases[i].size, i));
    }
    card.start(card.tmp.file("no-cap"));
    for (size_t i = 0; i < std::size(cases); ++i) {
        SCOPED_TRACE(i);
        std::string name = "100MEDIA-F" + std::to_string(i) + ".MP4";
        std::string want = pattern_bytes(cases[i].size, i), local = card.outDir + "/" + name;
        testsupport::write_file(local, (want + "0123456789").substr(0, cases[i].have));
        ToolRun r = card.tool({"get", name, "-o", card.outDir, "--packsize", cases[i].packsize,
                               "--blocks", cases[i].blocks});
        ASSERT_EQ(r.rc, 0) << r.err;
        EXPECT_TRUE(read_file(local) == want);
        bool resumes = cases[i].have != 0 && cases[i].have <= cases[i].size;
        EXPECT_EQ(r.err.find("resuming at " + std::to_string(cases[i].have)) != r.err.npos,
                  resumes);
    }
}

TEST_F(Tool, EachOutcomeHasItsOwnExitCodeAndMessage) {
    std::string cap = "<camera_definition/>\n" + std::string(9000, 'x');
    testsupport::write_file(card.tmp.file("cap.xml"), cap);
    card.put("IMG_0001.JPG", "not really a jpeg");
    card.put("EMPTY.MP4", "");
    card.start(card.tmp.file("cap.xml"));
    const struct {
        std::vector<std::string> args;
        int rc;
        const char* text;  // in the error stream, or the output when rc is 0
    } cases[] = {
        {{"get", "100MEDIA-NOPE.JPG", "-o", card.outDir}, app::EXIT_NOT_FOUND, "not found"},
        {{"get", "100MEDIA-EMPTY.MP4", "-o", card.outDir}, app::EXIT_FAILED, "failed"},
        {{"meta", "100MEDIA-NOPE.JPG"}, app::EXIT_NOT_FOUND, "not found"},
        {{"thumb", "100MEDIA-NOPE.MP4", "-o", card.outDir + "/t"},
         app::EXIT_NOT_FOUND,
         "not found"},
        {{"config", "--packsize", "65535", "--blocks", "3201"}, app::EXIT_TOO_LARGE, "too large"},
        {{"config", "--packsize", "65535", "--blocks", "3200"}, 0, ""},
        {{"meta", "100MEDIA-IMG_0001.JPG"}, 0, "\"filename\":\t\"100MEDIA-IMG_0001.JPG\""},
        {{"rm", "100MEDIA-IMG_0001.JPG", "..-x.JPG"},
         app::EXIT_BAD_NAME,
         "ack: done (0xFB00)\nack: bad name (0xFB09)\n"},
        {{"pos"}, 0, "position: 4096\n"},
        {{"cap", "-o", card.outDir + "/c"}, 0, ""},
        {{"get"}, app::EXIT_USAGE, "no file name"},
        {{"frobnicate"}, app::EXIT_USAGE, "unknown command"},
    };
    for (const auto& c : cases) {
        ToolRun r = card.tool(c.args);
        EXPECT_EQ(r.rc, c.rc) << c.args[0] << ": " << r.err;
        const std::string& text = c.rc == 0 || c.args[0] == "rm" ? r.out : r.err;
        EXPECT_NE(text.find(c.text), text.npos) << c.args[0] << ": " << text;
    }
    EXPECT_FALSE(testsupport::exists(card.outDir + "/100MEDIA-NOPE.JPG"));
    EXPECT_FALSE(testsupport::exists(card.media + "/IMG_0001.JPG"));
    EXPECT_TRUE(read_file(card.outDir + "/c") == cap);
}

TEST(ToolConnection, SilentAndRefusedServersExitDistinctly) {
    int lst = socket(AF_INET, SOCK_STREAM, 0);  // accepts through the kernel, never answers
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    ASSERT_EQ(bind(lst, reinterpret_cast<sockaddr*>(&a), len) | listen(lst, 4) |
                  getsockname(lst, reinterpret_cast<sockaddr*>(&a), &len),
              0);
    std::string port = std::to_string(ntohs(a.sin_port));
    ToolRun r = run_tool({"--port", port, "--timeout", "200", "pos"});
    EXPECT_EQ(r.rc, app::EXIT_TIMEOUT) << r.err;
    EXPECT_NE(r.err.find("timed out"), r.err.npos);
    close(lst);
    r = run_tool({"--port", port, "ls"});
    EXPECT_EQ(r.rc, app::EXIT_REFUSED) << r.err;
    EXPECT_NE(r.err.find("connection refused"), r.err.npos);
}

}  // namespace
}  // namespace korvel::apptest

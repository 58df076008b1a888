// korvel-app's commands end to end against the real server loop on a free port.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cjson/cJSON.h>

#include "app_support.h"
#include "core/packet.h"

namespace korvel {
namespace apptest {
namespace {

using testsupport::exists;
using testsupport::read_file;
using testsupport::write_file;

class Tool : public ::testing::Test {
protected:
    ServedCard card;
};

TEST_F(Tool, ListsTheCatalogueAcrossManySmallBursts) {
    for (int i = 0; i < 30; ++i) {
        char name[32];
        snprintf(name, sizeof name, "IMG_%04d.JPG", i);
        card.put(name, "jpeg");
    }
    card.put("IMG_0003.thm", "t");
    card.put("VID_0100.MP4", "mp4");
    card.put("VID_0100.2nd", "second");
    card.start();

    // 64-byte packets, 2 per burst: dozens of continuation requests.
    ToolRun paged = card.tool({"--packsize", "64", "--blocks", "2", "ls", "--json"});
    ASSERT_EQ(paged.rc, 0) << paged.err;
    ToolRun whole = card.tool({"ls", "--json"});
    ASSERT_EQ(whole.rc, 0) << whole.err;
    EXPECT_EQ(paged.out, whole.out);
    cJSON* root = cJSON_Parse(paged.out.c_str());
    ASSERT_NE(root, nullptr);
    EXPECT_EQ(cJSON_GetArraySize(cJSON_GetObjectItem(root, "media")), 31);
    cJSON_Delete(root);

    ToolRun table = card.tool({"--packsize", "100", "--blocks", "1", "ls"});
    ASSERT_EQ(table.rc, 0) << table.err;
    EXPECT_NE(table.out.find("100MEDIA-VID_0100.MP4  MP4"), std::string::npos) << table.out;
    EXPECT_NE(table.out.find("100MEDIA-VID_0100.2nd"), std::string::npos);
    EXPECT_NE(table.out.find("100MEDIA-IMG_0003.thm"), std::string::npos);
    EXPECT_NE(table.out.find("31 file(s)"), std::string::npos);
}

TEST_F(Tool, DownloadsAndResumesWhereverTheServerMapsItsRegion) {
    struct Case {
        const char* what;
        size_t size;
        size_t have;  // bytes already in the local file (a cut transfer)
        const char* packsize;
        const char* blocks;
    } cases[] = {
        {"fresh, many bursts", 300000, 0, "4096", "4"},
        {"resume mid-page past the first region", 100000, 5000, "4096", "4"},
        {"resume inside the region the request mapped", 10000, 5000, "4096", "4"},
        {"unaligned packets", 70001, 12345, "1000", "3"},
        {"local file already complete", 9000, 9000, "4096", "1"},
    };
    for (size_t i = 0; i < sizeof cases / sizeof cases[0]; ++i) {
        card.put("FILE_" + std::to_string(i) + ".MP4", pattern_bytes(cases[i].size, i));
    }
    card.start();
    for (size_t i = 0; i < sizeof cases / sizeof cases[0]; ++i) {
        const Case& c = cases[i];
        SCOPED_TRACE(c.what);
        std::string name = "100MEDIA-FILE_" + std::to_string(i) + ".MP4";
        std::string local = card.outDir + "/" + name;
        std::string want = pattern_bytes(c.size, i);
        write_file(local, want.substr(0, c.have));
        ToolRun r = card.tool(
            {"get", name, "-o", card.outDir, "--packsize", c.packsize, "--blocks", c.blocks});
        ASSERT_EQ(r.rc, 0) << r.err;
        EXPECT_TRUE(read_file(local) == want);
        if (c.have != 0 && c.have < c.size) {
            EXPECT_NE(r.err.find("resuming at " + std::to_string(c.have)), std::string::npos);
        }
    }
}

TEST_F(Tool, ResumesAfterACutConnectionAndRestartsALongerLocalFile) {
    std::string want = pattern_bytes(50000, 7);
    card.put("CLIP.MP4", want);
    card.start();
    std::string local = card.outDir + "/100MEDIA-CLIP.MP4";

    // Fetch one burst by hand, keep its bytes, and drop the connection mid-transfer.
    {
        app::Client c;
        ASSERT_EQ(c.connect_to("127.0.0.1", card.server->port()), app::CLIENT_OK);
        ASSERT_EQ(c.configure(4096, 2), app::CLIENT_OK);
        app::Reply r;
        ASSERT_EQ(c.read_reply(r), app::CLIENT_OK);
        ASSERT_EQ(c.request_download("100MEDIA-CLIP.MP4"), app::CLIENT_OK);
        ASSERT_EQ(c.read_reply(r), app::CLIENT_OK);
        ASSERT_EQ(c.ctrl(3, 0), app::CLIENT_OK);
        std::string got;
        for (int i = 0; i < 2; ++i) {
            ASSERT_EQ(c.read_reply(r), app::CLIENT_OK);
            got.append(r.payload.begin(), r.payload.end());
        }
        write_file(local, got);
    }
    ToolRun r = card.tool({"get", "100MEDIA-CLIP.MP4", "-o", card.outDir});
    ASSERT_EQ(r.rc, 0) << r.err;
    EXPECT_NE(r.err.find("resuming at 8192"), std::string::npos) << r.err;
    EXPECT_TRUE(read_file(local) == want);

    write_file(local, want + "trailing junk");
    r = card.tool({"get", "100MEDIA-CLIP.MP4", "-o", card.outDir});
    ASSERT_EQ(r.rc, 0) << r.err;
    EXPECT_TRUE(read_file(local) == want);
}

TEST_F(Tool, EveryFailureHasItsOwnExitCodeAndMessage) {
    card.put("IMG_0001.JPG", "not really a jpeg");
    card.put("EMPTY.MP4", "");
    card.start();
    struct Case {
        std::vector<std::string> args;
        int rc;
        const char* message;
    } cases[] = {
        {{"get", "100MEDIA-NOPE.JPG", "-o", card.outDir}, app::EXIT_NOT_FOUND, "not found"},
        {{"get", "100MEDIA-EMPTY.MP4", "-o", card.outDir}, app::EXIT_FAILED, "failed"},
        {{"meta", "100MEDIA-NOPE.JPG"}, app::EXIT_NOT_FOUND, "not found"},
        {{"thumb", "100MEDIA-NOPE.MP4", "-o", card.outDir + "/t"},
         app::EXIT_NOT_FOUND,
         "not found"},
        {{"cap"}, app::EXIT_NOT_FOUND, "not found"},
        {{"config", "--packsize", "65535", "--blocks", "3201"}, app::EXIT_TOO_LARGE, "too large"},
        {{"get"}, app::EXIT_USAGE, "no file name"},
        {{"frobnicate"}, app::EXIT_USAGE, "unknown command"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.args[0]);
        ToolRun r = card.tool(c.args);
        EXPECT_EQ(r.rc, c.rc) << r.err;
        EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
    }
    // The failed requests left no local files behind.
    EXPECT_FALSE(exists(card.outDir + "/100MEDIA-NOPE.JPG"));
}

TEST(ToolConnection, RefusedAndSilentServersExitDistinctly) {
    // A listener that never answers: the connection is accepted by the kernel, no reply comes.
    int lst = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(lst, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    ASSERT_EQ(listen(lst, 4), 0);
    socklen_t len = sizeof a;
    getsockname(lst, reinterpret_cast<sockaddr*>(&a), &len);
    std::string silent = std::to_string(ntohs(a.sin_port));
    ToolRun r = run_tool({"--port", silent, "--timeout", "200", "pos"});
    EXPECT_EQ(r.rc, app::EXIT_TIMEOUT) << r.err;
    EXPECT_NE(r.err.find("timed out"), std::string::npos);
    close(lst);  // nobody listens there any more
    r = run_tool({"--port", silent, "ls"});
    EXPECT_EQ(r.rc, app::EXIT_REFUSED) << r.err;
    EXPECT_NE(r.err.find("connection refused"), std::string::npos);
}

TEST_F(Tool, RemovesFilesAndPrintsEveryAcknowledgement) {
    card.put("IMG_0001.JPG", "a");
    card.put("IMG_0001.thm", "a");
    card.put("IMG_0002.JPG", "b");
    card.put("VID_0003.MP4", "c");
    card.start();
    ToolRun r = card.tool({"rm", "100MEDIA-IMG_0001.JPG", "100MEDIA-VID_0003.MP4"});
    ASSERT_EQ(r.rc, 0) << r.err;
    EXPECT_EQ(r.out, "ack: done (0xFB00)\n");
    EXPECT_FALSE(exists(card.media + "/IMG_0001.JPG"));
    EXPECT_FALSE(exists(card.media + "/IMG_0001.thm"));
    EXPECT_FALSE(exists(card.media + "/VID_0003.MP4"));
    EXPECT_TRUE(exists(card.media + "/IMG_0002.JPG"));

    // Under a user-defined location a name must carry a known prefix field.
    r = card.tool({"--location", "/mnt/SD0", "rm", "zzz-100MEDIA-IMG_0002.JPG"});
    EXPECT_EQ(r.rc, app::EXIT_BAD_NAME) << r.err;
    EXPECT_EQ(r.out, "ack: done (0xFB00)\nack: bad name (0xFB09)\n");
    EXPECT_TRUE(exists(card.media + "/IMG_0002.JPG"));
    r = card.tool({"--location", "/mnt/SD0", "rm", "0-100MEDIA-IMG_0002.JPG"});
    EXPECT_EQ(r.rc, 0) << r.err;
    EXPECT_FALSE(exists(card.media + "/IMG_0002.JPG"));
}

TEST_F(Tool, ShortExchanges) {
    testsupport::TempDir capDir;
    std::string cap = "<camera_definition/>\n" + std::string(9000, 'x');
    write_file(capDir.file("cap.xml"), cap);
    card.put("IMG_0001.JPG", "not really a jpeg");
    card.start(capDir.file("cap.xml"));

    ToolRun r = card.tool({"--packsize", "4096", "--blocks", "4", "cap", "-o", card.outDir + "/c"});
    ASSERT_EQ(r.rc, 0) << r.err;
    EXPECT_TRUE(read_file(card.outDir + "/c") == cap);

    r = card.tool({"meta", "100MEDIA-IMG_0001.JPG"});
    ASSERT_EQ(r.rc, 0) << r.err;
    EXPECT_NE(r.out.find("\"filename\":\t\"100MEDIA-IMG_0001.JPG\""), std::string::npos) << r.out;

    r = card.tool({"pos"});
    ASSERT_EQ(r.rc, 0) << r.err;
    EXPECT_EQ(r.out, "position: 4096\n");

    r = card.tool({"config", "--packsize", "65535", "--blocks", "3200"});
    EXPECT_EQ(r.rc, 0) << r.err;

    r = card.tool({"get", "--help"});
    EXPECT_EQ(r.rc, 0);
    EXPECT_NE(r.out.find("10  not found (0xFB02)"), std::string::npos);
}

}  // namespace
}  // namespace apptest
}  // namespace korvel

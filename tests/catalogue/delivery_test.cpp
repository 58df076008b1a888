// Delivery: built once, paged by offset with the marker rule, no packet when nothing is
// left; then the whole exchange through the running server.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <cstdlib>
#include <string>
#include <tuple>
#include <vector>

#include "app/client.h"
#include "catalogue/catalogue_fixture.h"
#include "core/packet.h"
#include "support/test_server.h"

namespace korvel {
namespace {

using namespace cataloguetest;
using ::testing::ElementsAreArray;
using ::testing::UnorderedElementsAre;
using Seen = std::tuple<uint32_t, uint32_t, size_t>;  // marker, offset, length of a packet

class DeliveryTest : public CatalogueTest {
protected:
    void SetUp() override {
        CatalogueTest::SetUp();
        int sv[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
        serverFd = sv[0];
        app.adopt_fd(sv[1]);
        tree.add_files("100MEDIA", {"IMG_0001.JPG", "IMG_0001.thm", "VID_0002.MP4"});
    }
    void TearDown() override { close(serverFd); }
    // Every reply already written: the task under test runs synchronously.
    std::vector<app::Reply> replies() {
        std::vector<app::Reply> out;
        struct pollfd p = {app.fd(), POLLIN, 0};
        while (poll(&p, 1, 0) > 0) {
            out.emplace_back();
            EXPECT_EQ(app.read_reply(out.back(), 1000), app::CLIENT_OK);
            EXPECT_TRUE(out.back().crcOk);
        }
        return out;
    }
    // One catalogue task; payloads checked against the cached text at their offsets.
    std::vector<Seen> request(uint8_t marker, uint16_t type, uint32_t offset) {
        ev->json_file_list_send(serverFd, marker, type, offset);
        std::vector<Seen> seen;
        for (const app::Reply& r : replies()) {
            EXPECT_EQ(r.reqType << 8 | r.msgType, 0u);
            EXPECT_EQ(std::string(r.payload.begin(), r.payload.end()),
                      ev->catalogueText.substr(r.offset, r.payload.size()));
            seen.emplace_back(r.marker, r.offset, r.payload.size());
        }
        return seen;
    }
    int serverFd = -1;
    app::Client app;
};

TEST_F(DeliveryTest, BurstsFollowPacketSizeBlocksAndStreamPosition) {
    std::vector<Seen> first = request(1, CATALOGUE_ALL, 0);
    const uint32_t n = ev->catalogueLen;
    ASSERT_THAT(first, ElementsAreArray({Seen{1, 0, n}}));
    ASSERT_GT(n, 400u);
    struct Case {
        uint32_t packsize, blocks, offset, readOffset;
        std::vector<Seen> expected;
    } cases[] = {
        {n, 1, 0, 0, {{1, 0, n}}},
        {n - 1, 4, 0, 0, {{0, 0, n - 1}, {1, n - 1, 1}}},
        {100, 3, 0, 0, {{0, 0, 100}, {0, 100, 100}, {0, 200, 100}}},
        {100, 3, n - 150, 0, {{0, n - 150, 100}, {1, n - 50, 50}}},
        {100, 1, 100, 0, {{0, 100, 100}}},
        {100, 2, 0, 8192, {{2, 0, 100}, {2, 100, 100}}},
        {100, 2, n - 10, 8192, {{3, n - 10, 10}}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.packsize) + "x" + std::to_string(c.blocks) + " @" +
                     std::to_string(c.offset) + " stream " + std::to_string(c.readOffset));
        ev->userDefPacksize = c.packsize;
        ev->userDefBlocks = c.blocks;
        ev->readOffset = c.readOffset;
        EXPECT_THAT(request(0, CATALOGUE_ALL, c.offset), ElementsAreArray(c.expected));
    }
}

// The type of the first request marked 1 sticks; later types and card changes do not reach it.
TEST_F(DeliveryTest, TheFirstCatalogueIsCached) {
    request(1, CATALOGUE_JPG, 0);
    const std::string first = ev->catalogueText;
    tree.add_files("101MEDIA", {"NEW.JPG"});
    EXPECT_THAT(request(1, CATALOGUE_MP4, 0), ElementsAreArray({Seen{1, 0, first.size()}}));
    EXPECT_EQ(ev->catalogueText, first);
    EXPECT_EQ(first.find("VID_0002"), std::string::npos);
}

TEST_F(DeliveryTest, NothingToSendGetsNoReplyAndAMissingRootAnEmptyCatalogue) {
    EXPECT_TRUE(request(0, CATALOGUE_ALL, 0).empty());  // continuation, nothing cached
    EXPECT_EQ(ev->catalogueJson, nullptr);
    use_location(tree.card() + "/NOPE", 0, 0);
    ASSERT_EQ(request(1, CATALOGUE_ALL, 0).size(), 1u);
    Json parsed(cJSON_Parse(ev->catalogueText.c_str()));
    EXPECT_EQ(str(parsed.get(), "rootdir"), tree.card() + "/NOPE");
    EXPECT_EQ(cJSON_GetArraySize(cJSON_GetObjectItem(parsed.get(), "media")), 0);
    EXPECT_TRUE(request(0, CATALOGUE_ALL, ev->catalogueLen).empty());
    EXPECT_TRUE(request(1, CATALOGUE_ALL, 0xFFFFFFFFu).empty());
    ev->quitRequested = 1;
    EXPECT_TRUE(request(1, CATALOGUE_ALL, 0).empty());
}

// Fails only the print: its first buffer is the one allocation of 256 bytes or more.
bool g_failLarge = false;
void* picky_malloc(size_t n) {
    return g_failLarge && n >= 256 ? nullptr : malloc(n);
}

TEST_F(DeliveryTest, FailedPrintIsReportedAndTheNextRequestRetries) {
    cJSON_Hooks hooks = {picky_malloc, free};
    cJSON_InitHooks(&hooks);
    g_failLarge = true;
    ev->json_file_list_send(serverFd, 1, CATALOGUE_ALL, 0);
    g_failLarge = false;
    std::vector<app::Reply> r = replies();
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(std::make_tuple(r[0].reqType, r[0].marker, r[0].msgType, r[0].offset),
              std::make_tuple(1u, 1u, 0u, 0u));
    EXPECT_EQ(std::make_tuple(r[0].ackFlag, r[0].ackCode, r[0].ackValue),
              std::make_tuple(1u, uint32_t{ACK_FAILED}, 0u));
    EXPECT_EQ(ev->catalogueJson, nullptr);
    EXPECT_EQ(request(1, CATALOGUE_ALL, 0).size(), 1u);
    EXPECT_GT(ev->catalogueLen, 0u);
    cJSON_InitHooks(nullptr);
}

// The app's view: configure, page by offset to the packet marked 1, confirm the last
// package, and meet a fresh scan under a storage-id location.
TEST(CatalogueServerTest, PagedCatalogueThenAFreshScanAfterTheLastPackage) {
    testsupport::MediaTree tree;
    tree.add_files("100MEDIA", {"IMG_0001.JPG", "VID_0002.MP4", "VID_0002.2nd"});
    testsupport::TestServer server(tree.card());
    app::Client app;
    ASSERT_EQ(app.connect_to("127.0.0.1", server.port()), app::CLIENT_OK);
    auto fetch = [&](uint16_t packsize, uint16_t blocks, bool user, uint16_t type) {
        app::Reply r;
        EXPECT_EQ(app.configure(packsize, blocks, user ? "0" : "", user), app::CLIENT_OK);
        EXPECT_EQ(app.read_reply(r), app::CLIENT_OK);
        EXPECT_EQ(r.ackCode, ACK_DONE);
        std::string text;
        int requests = 0;
        for (bool last = false; !last && requests < 100; ++requests) {
            EXPECT_EQ(app.request_catalogue(type, text.size(), requests == 0), app::CLIENT_OK);
            for (uint32_t i = 0; i < blocks && !last; ++i) {
                if (app.read_reply(r) != app::CLIENT_OK) {
                    ADD_FAILURE() << "no reply at offset " << text.size();
                    return Json();
                }
                EXPECT_EQ(r.offset, text.size());
                text.append(r.payload.begin(), r.payload.end());
                last = r.marker == 1;
            }
        }
        EXPECT_EQ(requests, (text.size() + packsize * blocks - 1) / (packsize * blocks));
        Json parsed(cJSON_Parse(text.c_str()));
        EXPECT_NE(parsed, nullptr) << text;
        return parsed;
    };
    Json first = fetch(100, 3, false, CATALOGUE_ALL);
    EXPECT_EQ(str(first.get(), "rootdir"), tree.location());
    const cJSON* media = cJSON_GetObjectItem(first.get(), "media");
    EXPECT_THAT(names(media),
                UnorderedElementsAre("100MEDIA-IMG_0001.JPG", "100MEDIA-VID_0002.MP4"));
    EXPECT_EQ(str(cJSON_GetObjectItem(entry(media, "100MEDIA-VID_0002.MP4"), "second"), "fileName"),
              "100MEDIA-VID_0002.2nd");
    ASSERT_EQ(app.ack_last_package(1), app::CLIENT_OK);
    tree.add_files("101MEDIA", {"NEW.JPG"});
    Json again = fetch(4096, 1, true, CATALOGUE_JPG);
    EXPECT_THAT(names(cJSON_GetObjectItem(again.get(), "media")),
                UnorderedElementsAre("0-100MEDIA-IMG_0001.JPG", "0-101MEDIA-NEW.JPG"));
}

}  // namespace
}  // namespace korvel

// Delivery as the worker runs the catalogue task: built once, paged by offset with the
// marker rule, no packet when nothing is left, ACK_FAILED when the print fails.
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

namespace korvel {
namespace {

using namespace cataloguetest;
using ::testing::ElementsAreArray;
using Seen = std::tuple<uint32_t, uint32_t, size_t>;  // marker, offset, length of a packet

class DeliveryTest : public CatalogueTest {
protected:
    void SetUp() override {
        CatalogueTest::SetUp();
        int sv[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
        serverFd = sv[0];
        app.adopt_fd(sv[1]);
        add_all("100MEDIA", {"IMG_0001.JPG", "IMG_0001.thm", "VID_0002.MP4"});
    }
    void TearDown() override { close(serverFd); }
    // One catalogue task as the worker runs it; payloads checked against the cached text.
    std::vector<Seen> request(uint8_t marker, uint16_t type, uint32_t offset) {
        HandlerTask task;
        task.type = TASK_CATALOGUE;
        task.fd = serverFd;
        task.marker = marker;
        task.value = type;
        task.offset = offset;
        ev->process(task);
        std::vector<Seen> seen;
        struct pollfd p = {app.fd(), POLLIN, 0};
        for (got.clear(); poll(&p, 1, 0) > 0; got.push_back(reply)) {
            EXPECT_EQ(app.read_reply(reply, 1000), app::CLIENT_OK);
            EXPECT_TRUE(reply.crcOk && reply.msgType == 0);
            EXPECT_EQ(std::string(reply.payload.begin(), reply.payload.end()),
                      ev->catalogueText.substr(reply.offset, reply.payload.size()));
            seen.emplace_back(reply.marker, reply.offset, reply.payload.size());
        }
        return seen;
    }
    app::Reply reply;
    std::vector<app::Reply> got;
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
    EXPECT_EQ(ev->catalogueType, CATALOGUE_JPG);
    const std::string first = ev->catalogueText;
    add("101MEDIA", "NEW.JPG");
    EXPECT_THAT(request(1, CATALOGUE_MP4, 0), ElementsAreArray({Seen{1, 0, first.size()}}));
    EXPECT_EQ(ev->catalogueText, first);
    EXPECT_EQ(first.find("VID_0002"), std::string::npos);
}

TEST_F(DeliveryTest, NothingToSendGetsNoReplyAndAMissingRootAnEmptyCatalogue) {
    EXPECT_TRUE(request(0, CATALOGUE_ALL, 0).empty());  // continuation, nothing cached
    EXPECT_EQ(ev->catalogueJson, nullptr);
    use_location(card + "/NOPE", 0, 0);
    ASSERT_EQ(request(1, CATALOGUE_ALL, 0).size(), 1u);
    Json parsed(cJSON_Parse(ev->catalogueText.c_str()));
    EXPECT_EQ(str(parsed.get(), "rootdir"), card + "/NOPE");
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
    EXPECT_EQ(request(1, CATALOGUE_ALL, 0).size(), 1u);
    g_failLarge = false;
    cJSON_InitHooks(nullptr);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(std::make_tuple(got[0].reqType, got[0].marker, got[0].offset, got[0].ackFlag),
              std::make_tuple(1u, 1u, 0u, 1u));
    EXPECT_EQ(std::make_pair(got[0].ackCode, got[0].ackValue),
              std::make_pair(uint32_t{ACK_FAILED}, 0u));
    EXPECT_EQ(ev->catalogueJson, nullptr);
    EXPECT_EQ(request(1, CATALOGUE_ALL, 0).size(), 1u);
    EXPECT_GT(ev->catalogueLen, 0u);
}

}  // namespace
}  // namespace korvel

// The catalogue task as the worker runs it: built once, paged by offset with the marker
// rule, and the requests that get no packet at all.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <tuple>
#include <vector>

#include "catalogue/catalogue.h"
#include "catalogue/catalogue_fixture.h"
#include "core/packet.h"

namespace korvel {
namespace {

using cataloguetest::CatalogueTest;
using cataloguetest::Json;
using cataloguetest::str;
using ::testing::ElementsAreArray;

// (marker, offset, length) of one packet.
using Seen = std::tuple<uint32_t, uint32_t, size_t>;

class DeliveryTest : public CatalogueTest {
protected:
    void SetUp() override {
        CatalogueTest::SetUp();
        tree.add_files("100MEDIA", {"IMG_0001.JPG", "IMG_0001.thm", "VID_0002.MP4"});
    }
    // One catalogue task; its packets as (marker, offset, length), payloads checked against
    // the cached text at their offsets.
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
};

// Packet boundaries, burst length and the markers a non-zero stream position gives.
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

// Built once, with the type of the first request marked 1; later types and later changes
// on the card do not reach it.
TEST_F(DeliveryTest, TheFirstCatalogueIsCached) {
    request(1, CATALOGUE_JPG, 0);
    const std::string first = ev->catalogueText;
    tree.add_files("101MEDIA", {"NEW.JPG"});
    EXPECT_THAT(request(1, CATALOGUE_MP4, 0), ElementsAreArray({Seen{1, 0, first.size()}}));
    EXPECT_EQ(ev->catalogueText, first);
    EXPECT_EQ(ev->catalogueType, CATALOGUE_JPG);
    EXPECT_EQ(first.find("VID_0002"), std::string::npos);
}

TEST_F(DeliveryTest, NothingToSendGetsNoReply) {
    EXPECT_TRUE(request(0, CATALOGUE_ALL, 0).empty());  // continuation, nothing cached
    EXPECT_EQ(ev->catalogueLen, 0u);
    EXPECT_EQ(ev->catalogueJson, nullptr);
    request(1, CATALOGUE_ALL, 0);
    EXPECT_TRUE(request(0, CATALOGUE_ALL, ev->catalogueLen).empty());
    EXPECT_TRUE(request(1, CATALOGUE_ALL, 0xFFFFFFFFu).empty());
    ev->quitRequested = 1;
    EXPECT_TRUE(request(1, CATALOGUE_ALL, 0).empty());
}

TEST_F(DeliveryTest, MissingRootSendsAnEmptyCatalogue) {
    use_location(tree.card() + "/NOPE", 0, 0);
    ASSERT_EQ(request(1, CATALOGUE_ALL, 0).size(), 1u);
    Json parsed(cJSON_Parse(ev->catalogueText.c_str()));
    EXPECT_EQ(str(parsed.get(), "rootdir"), tree.card() + "/NOPE");
    EXPECT_EQ(cJSON_GetArraySize(cJSON_GetObjectItem(parsed.get(), "media")), 0);
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
    EXPECT_EQ(r[0].reqType << 8 | r[0].marker, 0x101u);
    EXPECT_EQ(r[0].msgType | r[0].offset | r[0].ackValue, 0u);
    EXPECT_EQ(r[0].ackFlag, 1u);
    EXPECT_EQ(r[0].ackCode, ACK_FAILED);
    EXPECT_EQ(ev->catalogueJson, nullptr);
    EXPECT_EQ(ev->catalogueLen, 0u);
    EXPECT_EQ(request(1, CATALOGUE_ALL, 0).size(), 1u);
    EXPECT_GT(ev->catalogueLen, 0u);
    cJSON_InitHooks(nullptr);
}

}  // namespace
}  // namespace korvel

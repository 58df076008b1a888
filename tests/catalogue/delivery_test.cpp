// Delivery as the worker runs the catalogue task: built once, paged by offset with the
// marker rule, no packet when nothing is left, ACK_FAILED when the print fails.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <tuple>
#include <vector>

#include "catalogue/catalogue_fixture.h"
#include "core/packet.h"

namespace korvel {
namespace {

using namespace cataloguetest;
using ::testing::ElementsAreArray;

TEST_F(DeliveryTest, BurstsFollowPacketSizeBlocksAndStreamPosition) {
    std::vector<Seen> first = request(1, CATALOGUE_ALL, 0);
    const uint32_t n = ev->catalogueLen;
    ASSERT_THAT(first, ElementsAreArray({Seen{1, 0, n}}));
    ASSERT_GT(n, 400u);
    struct Case {
        uint32_t packsize, blocks, offset, readOffset;
        std::vector<Seen> expected;
    } cases[] = {
        {n - 1, 4, 0, 0, {{0, 0, n - 1}, {1, n - 1, 1}}},
        {100, 3, 0, 0, {{0, 0, 100}, {0, 100, 100}, {0, 200, 100}}},
        {100, 3, n - 150, 0, {{0, n - 150, 100}, {1, n - 50, 50}}},
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

// A missing root's empty catalogue is the byte-identity test's (its round 0) and the
// card-removal fault test's.
TEST_F(DeliveryTest, NothingToSendGetsNoReply) {
    EXPECT_TRUE(request(0, CATALOGUE_ALL, 0).empty());  // continuation, nothing cached
    EXPECT_EQ(ev->catalogueJson, nullptr);
    ASSERT_EQ(request(1, CATALOGUE_ALL, 0).size(), 1u);
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

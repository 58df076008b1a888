// The catalogue task as the worker runs it: building once, paging by offset with the
// marker rule, and the requests that get no packet at all.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <string>
#include <vector>

#include "catalogue/catalogue.h"
#include "catalogue/catalogue_fixture.h"
#include "core/packet.h"

namespace korvel {
namespace {

using cataloguetest::CatalogueTest;
using cataloguetest::Json;
using cataloguetest::names;
using cataloguetest::str;
using ::testing::ElementsAreArray;

struct Seen {
    uint32_t marker;
    uint32_t offset;
    size_t length;
    bool operator==(const Seen& o) const {
        return marker == o.marker && offset == o.offset && length == o.length;
    }
};
std::ostream& operator<<(std::ostream& os, const Seen& s) {
    return os << "{marker " << s.marker << ", offset " << s.offset << ", " << s.length << " B}";
}

class DeliveryTest : public CatalogueTest {
protected:
    void SetUp() override {
        CatalogueTest::SetUp();
        tree.add_files("100MEDIA", {"IMG_0001.JPG", "IMG_0001.thm", "VID_0002.MP4"});
    }
    // Runs one catalogue task and returns its packets as (marker, offset, length).
    std::vector<Seen> request(uint8_t marker, uint16_t type, uint32_t offset) {
        ev->json_file_list_send(serverFd, marker, type, offset);
        std::vector<Seen> seen;
        for (const app::Reply& r : replies()) {
            EXPECT_EQ(r.reqType, 0u);
            EXPECT_EQ(r.msgType, 0u);
            seen.push_back({r.marker, r.offset, r.payload.size()});
            if (r.offset + r.payload.size() <= ev->catalogueText.size()) {
                std::copy(r.payload.begin(), r.payload.end(), got.begin() + r.offset);
            }
        }
        return seen;
    }
    uint32_t len() const { return ev->catalogueLen; }

    std::string got = std::string(1 << 16, '\0');  // the app's reassembly by offset
};

TEST_F(DeliveryTest, ShortCatalogueIsOneLastPacket) {
    std::vector<Seen> seen = request(1, CATALOGUE_ALL, 0);
    ASSERT_GT(len(), 0u);
    ASSERT_LT(len(), 4096u);
    EXPECT_THAT(seen, ElementsAreArray({Seen{1, 0, len()}}));
    EXPECT_EQ(got.substr(0, len()), ev->catalogueText);
    Json parsed(cJSON_Parse(ev->catalogueText.c_str()));
    EXPECT_EQ(names(cJSON_GetObjectItem(parsed.get(), "media")).size(), 2u);
}

// Packet boundaries: a catalogue of exactly one packet size is one last packet, one byte
// more needs a second packet; blocks limit how many go out per request.
TEST_F(DeliveryTest, BurstsFollowPacketSizeAndBlocks) {
    request(1, CATALOGUE_ALL, 0);
    const uint32_t n = len();
    ASSERT_GT(n, 400u);
    struct Case {
        uint32_t packsize, blocks, offset;
        std::vector<Seen> expected;
    } cases[] = {
        {n, 1, 0, {{1, 0, n}}},
        {n, 4, 0, {{1, 0, n}}},
        {n - 1, 4, 0, {{0, 0, n - 1}, {1, n - 1, 1}}},
        {100, 3, 0, {{0, 0, 100}, {0, 100, 100}, {0, 200, 100}}},
        {100, 3, n - 150, {{0, n - 150, 100}, {1, n - 50, 50}}},
        {100, 1, n - 1, {{1, n - 1, 1}}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.packsize) + "x" + std::to_string(c.blocks) + " @" +
                     std::to_string(c.offset));
        set_transfer(c.packsize, c.blocks);
        EXPECT_THAT(request(0, CATALOGUE_ALL, c.offset), ElementsAreArray(c.expected));
    }
}

// With one packet per request, the app walks the catalogue by offset and reassembles it.
TEST_F(DeliveryTest, OnePacketPerRequestPagesThroughTheText) {
    set_transfer(64, 1);
    std::vector<Seen> all;
    uint32_t offset = 0;
    for (uint8_t marker = 1; all.size() < 1000; marker = 0) {
        std::vector<Seen> seen = request(marker, CATALOGUE_ALL, offset);
        ASSERT_EQ(seen.size(), 1u);
        all.push_back(seen[0]);
        if (seen[0].marker == 1) {
            break;
        }
        offset += 64;
    }
    ASSERT_EQ(all.size(), (len() + 63) / 64);
    for (size_t i = 0; i + 1 < all.size(); ++i) {
        EXPECT_EQ(all[i], (Seen{0, static_cast<uint32_t>(i * 64), 64}));
    }
    EXPECT_EQ(got.substr(0, len()), ev->catalogueText);
}

// A stream that left readOffset non-zero turns markers 0/1 into 2/3.
TEST_F(DeliveryTest, MarkersFollowTheStreamPosition) {
    request(1, CATALOGUE_ALL, 0);
    ev->readOffset = 8192;
    set_transfer(100, 2);
    EXPECT_THAT(request(0, CATALOGUE_ALL, 0),
                ElementsAreArray({Seen{2, 0, 100}, Seen{2, 100, 100}}));
    EXPECT_THAT(request(0, CATALOGUE_ALL, len() - 10), ElementsAreArray({Seen{3, len() - 10, 10}}));
}

// Built once, with the first type marked 1: later types and later card changes don't count.
TEST_F(DeliveryTest, TheFirstCatalogueIsCached) {
    request(1, CATALOGUE_JPG, 0);
    const std::string first = ev->catalogueText;
    tree.add_files("101MEDIA", {"NEW.JPG"});
    std::vector<Seen> seen = request(1, CATALOGUE_MP4, 0);
    EXPECT_THAT(seen, ElementsAreArray({Seen{1, 0, first.size()}}));
    EXPECT_EQ(ev->catalogueText, first);
    EXPECT_EQ(got.substr(0, first.size()), first);
    EXPECT_EQ(ev->catalogueType, CATALOGUE_JPG);
    EXPECT_EQ(first.find("VID_0002"), std::string::npos);
}

TEST_F(DeliveryTest, NothingLeftToSendGetsNoReply) {
    EXPECT_TRUE(request(0, CATALOGUE_ALL, 0).empty());  // continuation, nothing cached
    EXPECT_EQ(len(), 0u);
    EXPECT_EQ(ev->catalogueJson, nullptr);
    request(1, CATALOGUE_ALL, 0);
    EXPECT_TRUE(request(0, CATALOGUE_ALL, len()).empty());
    EXPECT_TRUE(request(1, CATALOGUE_ALL, 0xFFFFFFFFu).empty());
    EXPECT_EQ(ev->sendFailed, 0);
}

TEST_F(DeliveryTest, MissingRootSendsAnEmptyCatalogue) {
    use_location(tree.card() + "/NOPE", 0, 0);
    EXPECT_EQ(request(1, CATALOGUE_ALL, 0).size(), 1u);
    Json parsed(cJSON_Parse(got.c_str()));
    ASSERT_NE(parsed, nullptr);
    EXPECT_EQ(str(parsed.get(), "rootdir"), tree.card() + "/NOPE");
    const cJSON* list = cJSON_GetObjectItem(parsed.get(), "media");
    EXPECT_TRUE(cJSON_IsArray(list));
    EXPECT_EQ(cJSON_GetArraySize(list), 0);
}

TEST_F(DeliveryTest, QuitBeforeTheTaskSendsNothing) {
    ev->quitRequested = 1;
    EXPECT_TRUE(request(1, CATALOGUE_ALL, 0).empty());
}

// Fails only the print: its first buffer is the only allocation of 256 bytes or more.
bool g_failLarge = false;
void* picky_malloc(size_t n) {
    return g_failLarge && n >= 256 ? nullptr : malloc(n);
}

TEST_F(DeliveryTest, FailedPrintIsReportedAndRetried) {
    cJSON_Hooks hooks = {picky_malloc, free};
    cJSON_InitHooks(&hooks);
    g_failLarge = true;
    ev->json_file_list_send(serverFd, 1, CATALOGUE_ALL, 0);
    g_failLarge = false;
    std::vector<app::Reply> r = replies();
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0].reqType, 1u);
    EXPECT_EQ(r[0].marker, 1u);
    EXPECT_EQ(r[0].msgType, 0u);
    EXPECT_EQ(r[0].offset, 0u);
    EXPECT_EQ(r[0].ackFlag, 1u);
    EXPECT_EQ(r[0].ackCode, ACK_FAILED);
    EXPECT_EQ(r[0].ackValue, 0u);
    EXPECT_EQ(ev->catalogueJson, nullptr);
    EXPECT_EQ(len(), 0u);
    EXPECT_EQ(request(1, CATALOGUE_ALL, 0).size(), 1u);  // the next request builds again
    EXPECT_GT(len(), 0u);
    cJSON_InitHooks(nullptr);
}

TEST_F(DeliveryTest, FailedSendStopsTheBurstAndIsRecorded) {
    signal(SIGPIPE, SIG_IGN);
    set_transfer(16, 8);
    app.close_connection();
    ev->json_file_list_send(serverFd, 1, CATALOGUE_ALL, 0);
    EXPECT_EQ(ev->sendFailed, 1);
}

}  // namespace
}  // namespace korvel

// The catalogue text is printed entry by entry: it must be, byte for byte, cJSON_Print of the
// whole tree of the same card, and it must be the one copy the event base keeps.
#include <gtest/gtest.h>
#include <malloc.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <random>
#include <string>

#include "app/client.h"
#include "catalogue/catalogue_fixture.h"

namespace korvel {
namespace {

using namespace cataloguetest;

// Stems needing each escape cJSON writes (quote, backslash, \t \n \r, \u00XX), raw UTF-8
// and plain ones.
const char* const kStems[] = {"IMG_", "q\"b\\s", "t\tn\nr\r", "c\x01\x1f", "\xc3\xa9 ", "V"};
const char* const kExts[] = {"JPG", "jpg", "DNG", "MP4", "MOV", "Mp4", "txt"};
const char* const kExtras[] = {".thm", ".THM", ".2nd", ".2ND"};

TEST_F(CatalogueTest, StreamedTextIsThePrintOfTheWholeTree) {
    std::mt19937 rng(20261125);
    for (int round = 0; round < 40; ++round) {
        // Rounds 0 and 1 hold no and one entry; the location itself needs escaping.
        const std::string loc = location + "/r\"" + std::to_string(round) + "\t";
        const int files = round < 2 ? round : static_cast<int>(rng() % 60);
        const int dirs = 1 + static_cast<int>(rng() % 3);
        for (int i = 0; i < files; ++i) {
            const std::string dir = loc + "/" + std::to_string(100 + rng() % dirs) + "MEDIA/";
            const std::string stem = kStems[rng() % 6] + std::to_string(i);
            testsupport::make_dirs(dir);
            testsupport::write_file(dir + stem + "." + kExts[rng() % 7], std::string(i, 'x'));
            for (const char* extra : kExtras) {
                if (rng() % 3 == 0) {
                    testsupport::write_file(dir + stem + extra, "");
                }
            }
        }
        SCOPED_TRACE("round " + std::to_string(round) + ", " + std::to_string(files) + " files");
        use_location(loc, static_cast<uint8_t>(round % 2), round);
        uint32_t len = 0;
        ev->catalogueType = CATALOGUE_ALL;
        ev->json_file_list_create(&len);

        scan(CATALOGUE_ALL);  // round 0's location does not exist: an empty "media"
        Json whole(cJSON_CreateObject());
        cJSON_AddStringToObject(whole.get(), "image", "\"KORVEL\"");
        cJSON_AddStringToObject(whole.get(), "rootdir", loc.c_str());
        cJSON_AddItemToObject(whole.get(), "media", media.release());
        char* printed = cJSON_Print(whole.get());
        EXPECT_EQ(ev->catalogueText, printed);
        EXPECT_EQ(len, strlen(printed));
        cJSON_free(printed);
    }
}

// Paging reads the one cached text without touching it; it goes when the event base goes.
TEST_F(DeliveryTest, CachedTextSurvivesPagingAndGoesWithTheEventBase) {
    for (int i = 0; i < 300; ++i) {
        add_all("100MEDIA", {"IMG_" + std::to_string(i) + ".JPG"});
    }
    ev->userDefPacksize = 4096;
    ev->userDefBlocks = 4;
    std::string paged;
    const char* cached = nullptr;
    for (uint8_t marker = 1; paged.size() < ev->catalogueLen || marker == 1; marker = 0) {
        ASSERT_FALSE(request(marker, CATALOGUE_ALL, static_cast<uint32_t>(paged.size())).empty());
        cached = cached != nullptr ? cached : ev->catalogueText.data();
        EXPECT_EQ(ev->catalogueText.data(), cached);
        EXPECT_EQ(ev->catalogueJson, nullptr);
        for (const app::Reply& r : got) {
            paged.append(r.payload.begin(), r.payload.end());
        }
    }
    EXPECT_EQ(got.back().marker, MARKER_LAST);
    EXPECT_GT(paged.size(), 16u * 4096u);
    EXPECT_EQ(paged, ev->catalogueText);

    const size_t text = ev->catalogueText.capacity();
    struct mallinfo2 before = mallinfo2();
    if (before.uordblks + before.hblkhd < text) {
        GTEST_SKIP() << "the heap is not glibc's (sanitizer build)";
    }
    ev.reset();
    struct mallinfo2 after = mallinfo2();
    EXPECT_GE(before.uordblks + before.hblkhd, after.uordblks + after.hblkhd + text);
}

}  // namespace
}  // namespace korvel

// Metadata requests: the JSON document for photos, videos and other files, refusals, and
// the burst the document travels in.
#include <memory>
#include <string>

#include <cjson/cJSON.h>

#include "support/jpeg_builder.h"
#include "support/mp4_builder.h"
#include "transfer_fixture.h"

namespace korvel {
namespace transfertest {
namespace {

struct JsonFree {
    void operator()(cJSON* j) const { cJSON_Delete(j); }
};
using Json = std::unique_ptr<cJSON, JsonFree>;

std::string text_of(const cJSON* object, const char* key) {
    const cJSON* item = cJSON_GetObjectItemCaseSensitive(object, key);
    return cJSON_IsString(item) ? item->valuestring : "<absent>";
}

class Metadata : public TransferTest {
protected:
    void SetUp() override {
        TransferTest::SetUp();
        ASSERT_EQ(configure(4096, 4), ACK_DONE);
        add("100MEDIA", "IMG_0001.JPG",
            testsupport::jpeg_file(testsupport::camera_plan("Maker", "Model", 640, 480)));
        add("100MEDIA", "low.jpg",
            testsupport::jpeg_file(testsupport::camera_plan("Lower", "Case", 64, 48)));
        std::string clip = testsupport::mp4_file(testsupport::moov(testsupport::trak({})));
        add("100MEDIA", "a.mp4", clip);
        add("100MEDIA", "b.mov", clip);
        add("100MEDIA", "IMG_0001.THM", "thumb");
    }
    // The reply's packets joined in offset order, checked to be contiguous, and parsed.
    Json document(const Replies& r, std::string* text = nullptr) {
        std::string joined;
        for (const app::Reply& p : r) {
            EXPECT_EQ(p.msgType, 19u);
            EXPECT_EQ(p.offset, joined.size());
            joined += bytes_of(p);
        }
        if (text != nullptr) {
            *text = joined;
        }
        return Json(cJSON_Parse(joined.c_str()));
    }
};

TEST_F(Metadata, DocumentHoldsTheRecordOfKnownTypes) {
    struct Case {
        const char* name;
        const char* key;  // a fact the record must carry; null: empty array
        const char* value;
    } cases[] = {
        {"100MEDIA-IMG_0001.JPG", "imgmaker", "Maker"}, {"100MEDIA-low.jpg", "imgmodle", "Case"},
        {"100MEDIA-a.mp4", "imgWidth", "640"},          {"100MEDIA-b.mov", "imgHeight", "480"},
        {"100MEDIA-IMG_0001.THM", nullptr, nullptr},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Replies r = metadata(c.name);
        ASSERT_EQ(r.size(), 1u);
        EXPECT_EQ(r[0].marker, 1u);
        std::string text;
        Json doc = document(r, &text);
        ASSERT_TRUE(doc);
        Json formatted(cJSON_Parse(text.c_str()));
        char* printed = cJSON_Print(formatted.get());
        EXPECT_EQ(text, printed);  // cJSON's formatted print, no terminating NUL sent
        cJSON_free(printed);
        EXPECT_EQ(text_of(doc.get(), "filename"), c.name);
        const cJSON* list = cJSON_GetObjectItemCaseSensitive(doc.get(), "metadata");
        ASSERT_TRUE(cJSON_IsArray(list));
        if (c.key == nullptr) {
            EXPECT_EQ(cJSON_GetArraySize(list), 0);
            continue;
        }
        ASSERT_EQ(cJSON_GetArraySize(list), 1);
        EXPECT_EQ(text_of(cJSON_GetArrayItem(list, 0), c.key), c.value);
        EXPECT_EQ(text_of(cJSON_GetArrayItem(list, 0), "fileName"), c.name);
    }
}

TEST_F(Metadata, RefusedNames) {
    EXPECT_EQ(ack_code(metadata("100MEDIA-NONE.JPG")), ACK_NOT_FOUND);
    EXPECT_EQ(ack_code(metadata("1-100MEDIA-IMG_0001.JPG")), ACK_NOT_FOUND);  // dir "1"
    EXPECT_EQ(ack_code(metadata("100MEDIA-" + std::string(1015, 'n'))), ACK_BAD_NAME);
    add("100MEDIA", ".hidden", "x");
    EXPECT_TRUE(metadata("100MEDIA-.hidden").empty());
}

TEST_F(Metadata, MarkersFollowReadOffsetAndTheBurstCutsTheText) {
    std::string whole;
    document(metadata("100MEDIA-IMG_0001.JPG"), &whole);
    ASSERT_GT(whole.size(), 200u);
    struct Case {
        uint32_t readOffset;
        uint16_t blocks;
        uint32_t middle, last;
    } cases[] = {{0, 100, 0, 1}, {5000, 100, 2, 3}, {0, 2, 0, 0}, {5000, 2, 2, 2}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.readOffset + c.blocks);
        ASSERT_EQ(configure(64, c.blocks), ACK_DONE);
        eb->readOffset = c.readOffset;
        std::string text;
        Replies r = metadata("100MEDIA-IMG_0001.JPG");
        document(r, &text);
        size_t packets = c.blocks == 2 ? 2 : (whole.size() + 63) / 64;
        ASSERT_EQ(r.size(), packets);
        EXPECT_EQ(text, whole.substr(0, text.size()));
        for (size_t i = 0; i + 1 < r.size(); ++i) {
            EXPECT_EQ(r[i].marker, c.middle);
        }
        EXPECT_EQ(r.back().marker, c.last);
    }
}

}  // namespace
}  // namespace transfertest
}  // namespace korvel

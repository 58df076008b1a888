// The catalogue through the running server, as the app sees it: configure, page through
// the text by offset, confirm the last package, and meet a fresh scan afterwards.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "app/client.h"
#include "catalogue/catalogue.h"
#include "catalogue/catalogue_fixture.h"
#include "core/packet.h"
#include "support/media_tree.h"
#include "support/test_server.h"

namespace korvel {
namespace {

using cataloguetest::entry;
using cataloguetest::Json;
using cataloguetest::names;
using cataloguetest::str;
using ::testing::UnorderedElementsAre;

class CatalogueServerTest : public ::testing::Test {
protected:
    void SetUp() override {
        tree.add_files("100MEDIA", {"IMG_0001.JPG", "IMG_0001.thm", "VID_0002.MP4", "VID_0002.THM",
                                    "VID_0002.2nd"});
        server.reset(new testsupport::TestServer(tree.card()));
        ASSERT_EQ(app.connect_to("127.0.0.1", server->port()), app::CLIENT_OK);
    }
    void configure(uint16_t packsize, uint16_t blocks, const std::string& loc, bool user) {
        ASSERT_EQ(app.configure(packsize, blocks, loc, user), app::CLIENT_OK);
        app::Reply r;
        ASSERT_EQ(app.read_reply(r), app::CLIENT_OK);
        ASSERT_EQ(r.ackCode, ACK_DONE);
    }
    // Requests bursts by offset until the packet marked 1; returns the reassembled text.
    std::string fetch(uint16_t type, uint32_t blocks, int* requests) {
        std::string text;
        *requests = 0;
        for (uint8_t marker = 1; *requests < 1000; marker = 0) {
            EXPECT_EQ(app.request_catalogue(type, static_cast<uint32_t>(text.size()), marker),
                      app::CLIENT_OK);
            ++*requests;
            for (uint32_t i = 0; i < blocks; ++i) {
                app::Reply r;
                if (app.read_reply(r) != app::CLIENT_OK) {
                    ADD_FAILURE() << "no reply at offset " << text.size();
                    return text;
                }
                EXPECT_EQ(r.offset, text.size());
                text.append(r.payload.begin(), r.payload.end());
                if (r.marker == 1) {
                    return text;
                }
            }
        }
        return text;
    }

    testsupport::MediaTree tree;
    std::unique_ptr<testsupport::TestServer> server;
    app::Client app;
};

TEST_F(CatalogueServerTest, PagedCatalogueThenAFreshScanAfterTheLastPackage) {
    configure(100, 3, "", false);
    int requests = 0;
    std::string text = fetch(CATALOGUE_ALL, 3, &requests);
    Json parsed(cJSON_Parse(text.c_str()));
    ASSERT_NE(parsed, nullptr) << text;
    EXPECT_EQ(requests, static_cast<int>((text.size() + 299) / 300));
    EXPECT_EQ(str(parsed.get(), "rootdir"), tree.location());
    const cJSON* media = cJSON_GetObjectItem(parsed.get(), "media");
    EXPECT_THAT(names(media),
                UnorderedElementsAre("100MEDIA-IMG_0001.JPG", "100MEDIA-VID_0002.MP4"));
    const cJSON* video = entry(media, "100MEDIA-VID_0002.MP4");
    EXPECT_EQ(str(cJSON_GetObjectItem(video, "second"), "fileName"), "100MEDIA-VID_0002.2nd");

    ASSERT_EQ(app.ack_last_package(1), app::CLIENT_OK);
    tree.add_files("101MEDIA", {"NEW.JPG"});
    configure(4096, 1, "0", true);  // a fresh event base: configured again, by storage id
    std::string again = fetch(CATALOGUE_JPG, 1, &requests);
    parsed.reset(cJSON_Parse(again.c_str()));
    ASSERT_NE(parsed, nullptr) << again;
    EXPECT_THAT(names(cJSON_GetObjectItem(parsed.get(), "media")),
                UnorderedElementsAre("0-100MEDIA-IMG_0001.JPG", "0-101MEDIA-NEW.JPG"));
}

}  // namespace
}  // namespace korvel

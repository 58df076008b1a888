// Whole downloads through the running server and the app-side client over loopback.
#include <gtest/gtest.h>

#include <string>

#include "app/client.h"
#include "core/packet.h"
#include "support/jpeg_builder.h"
#include "support/temp_dir.h"
#include "support/test_server.h"
#include "transfer_fixture.h"

namespace korvel {
namespace transfertest {
namespace {

class EndToEnd : public ::testing::Test {
protected:
    testsupport::TempDir tmp;
    std::string card = tmp.file("card");
    std::string media = card + "/DCIM/100MEDIA";
    std::unique_ptr<testsupport::TestServer> server;
    app::Client app;

    void SetUp() override {
        make_dirs(media);
        server.reset(new testsupport::TestServer(card, tmp.file("cap.xml")));
        ASSERT_EQ(app.connect_to("127.0.0.1", server->port()), app::CLIENT_OK);
    }
    app::Reply next() {
        app::Reply r;
        EXPECT_EQ(app.read_reply(r, 5000), app::CLIENT_OK);
        EXPECT_TRUE(r.crcOk);
        return r;
    }
    uint32_t requested_size(const std::string& name) {
        app.request_download(name);
        app::Reply r = next();
        if (r.reqType != 0 || r.payload.size() != 4) {
            ADD_FAILURE() << "no size reply, code " << std::hex << r.ackCode;
            return 0;
        }
        return r.payload[0] | r.payload[1] << 8 | r.payload[2] << 16 |
               static_cast<uint32_t>(r.payload[3]) << 24;
    }
    // Fetches `size` bytes burst by burst with length-0 requests, alternating the data and
    // control forms; the bytes of a burst are placed by its request's offset.
    std::string fetch(uint32_t size, uint8_t msgType) {
        std::string got;
        for (int requests = 0; got.size() < size && requests < 1000; ++requests) {
            uint32_t at = static_cast<uint32_t>(got.size());
            if (requests % 2 == 0) {
                app.request_chunk(at, 0, msgType);
            } else {
                app.ctrl(msgType, at);
            }
            uint32_t marker = 0;
            do {
                app::Reply r = next();
                if (r.reqType != 0) {
                    ADD_FAILURE() << "refused at " << at << " code " << std::hex << r.ackCode;
                    return got;
                }
                EXPECT_EQ(r.msgType, msgType);
                got += bytes_of(r);
                marker = r.marker;
            } while (marker == 0 || (marker == 2 && got.size() % 16384 != 0));
            EXPECT_EQ(marker, got.size() < size ? 2u : (at == 0 ? 1u : 3u));
        }
        return got;
    }
};

TEST_F(EndToEnd, ReassembledFileEqualsTheCard) {
    std::string data = pattern(300001, 11);
    write_file(media + "/CLIP.MP4", data);
    ASSERT_EQ(app.configure(4096, 4), app::CLIENT_OK);
    EXPECT_EQ(next().ackCode, ACK_DONE);
    ASSERT_EQ(requested_size("100MEDIA-CLIP.MP4"), data.size());
    EXPECT_TRUE(fetch(static_cast<uint32_t>(data.size()), 3) == data);
    // msgType 6 streams the same file.
    EXPECT_TRUE(fetch(static_cast<uint32_t>(data.size()), 6) == data);
    app.ack_last_package();
}

TEST_F(EndToEnd, ThumbnailAndUserDefinedLocation) {
    std::string thumb = pattern(20000, 13);
    write_file(media + "/IMG_0001.JPG",
               testsupport::jpeg_file(testsupport::camera_plan("M", "N", 8, 8, thumb)));
    ASSERT_EQ(app.configure(4096, 4, card + "/", true), app::CLIENT_OK);
    EXPECT_EQ(next().ackCode, ACK_DONE);
    ASSERT_EQ(requested_size("card-100MEDIA-IMG_0001.thm"), thumb.size());
    app.request_chunk(0, 0);
    std::string got;
    for (uint32_t marker : {0u, 0u, 0u, 0u}) {
        app::Reply r = next();
        EXPECT_EQ(r.marker, marker);
        got += bytes_of(r);
    }
    app.request_chunk(16384, 0);
    app::Reply last = next();
    EXPECT_EQ(last.marker, 1u);  // no file stream has moved readOffset
    got += bytes_of(last);
    EXPECT_TRUE(got == thumb);
}

}  // namespace
}  // namespace transfertest
}  // namespace korvel

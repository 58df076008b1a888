// A card in a temporary directory and one event base pointed at it.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <tuple>
#include <vector>

#include <cjson/cJSON.h>

#include "app/client.h"
#include "catalogue/catalogue.h"
#include "client/event_base.h"
#include "core/config.h"
#include "core/json_ptr.h"
#include "support/temp_dir.h"

namespace korvel {
namespace cataloguetest {

using Json = JsonTree;
using Names = std::vector<std::string>;

inline std::string str(const cJSON* object, const char* key) {
    const cJSON* item = cJSON_GetObjectItemCaseSensitive(object, key);
    return cJSON_IsString(item) ? item->valuestring : "<absent>";
}

class CatalogueTest : public ::testing::Test {
protected:
    void SetUp() override {
        testsupport::make_dirs(location);
        testing_seam::set_sd_root(card.c_str());
        ev.reset(new CEventBase());
        use_location(location, 0, 0);
    }
    // As a configuration sets it, plus the copy a scan run directly works from.
    void use_location(const std::string& loc, uint8_t userDef, int32_t id) {
        {
            korvel::MutexLock lock(ev->locationMutex);
            snprintf(ev->resourceLocation, sizeof ev->resourceLocation, "%s", loc.c_str());
            ev->userDefLocation = userDef;
            ev->resourceLocationId = id;
        }
        ev->catalogueLocation = ev->location_snapshot();
    }
    // Scan and walk as the catalogue task runs them; the entries land in `media`.
    int32_t scan(uint16_t type) {
        ev->catalogueType = type;
        media.reset(cJSON_CreateArray());
        return ev->json_look_from_dir(media.get());
    }
    std::string in(const std::string& dir, const std::string& name) const {
        return location + "/" + dir + "/" + name;
    }
    // location/dir/name holding `size` zero bytes.
    std::string add(const std::string& dir, const std::string& name, size_t size = 0) const {
        testsupport::make_dirs(location + "/" + dir);
        testsupport::write_file(in(dir, name), std::string(size, '\0'));
        return in(dir, name);
    }
    void add_all(const std::string& dir, const Names& names) const {
        for (const std::string& n : names) {
            add(dir, n);
        }
    }

    testsupport::TempDir tmp;
    std::string card = tmp.file("card"), location = card + "/DCIM";
    std::unique_ptr<CEventBase> ev;
    Json media;
};

using Seen = std::tuple<uint32_t, uint32_t, size_t>;  // marker, offset, length of a packet

// The catalogue task as the worker runs it, an app on the far end of a socketpair.
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

}  // namespace cataloguetest
}  // namespace korvel

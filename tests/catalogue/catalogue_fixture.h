// Shared set-up for the catalogue tests: a card in a temporary directory, one event base
// whose location points at it, a socketpair whose far end decodes replies, JSON helpers.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <cjson/cJSON.h>

#include "app/client.h"
#include "client/event_base.h"
#include "core/config.h"
#include "support/media_tree.h"

namespace korvel {
namespace cataloguetest {

struct JsonFree {
    void operator()(cJSON* j) const { cJSON_Delete(j); }
};
using Json = std::unique_ptr<cJSON, JsonFree>;
using Names = std::vector<std::string>;

inline std::string str(const cJSON* object, const char* key) {
    const cJSON* item = cJSON_GetObjectItemCaseSensitive(object, key);
    return cJSON_IsString(item) ? item->valuestring : "<absent>";
}

// "fileName" of every entry of a media array, in order.
inline Names names(const cJSON* media) {
    Names n;
    const cJSON* e = nullptr;
    cJSON_ArrayForEach(e, media) {
        n.push_back(str(e, "fileName"));
    }
    return n;
}

inline const cJSON* entry(const cJSON* media, const std::string& name) {
    const cJSON* e = nullptr;
    cJSON_ArrayForEach(e, media) {
        if (str(e, "fileName") == name) {
            return e;
        }
    }
    return nullptr;
}

class CatalogueTest : public ::testing::Test {
protected:
    void SetUp() override {
        testing_seam::set_sd_root(tree.card().c_str());
        int sv[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
        serverFd = sv[0];
        app.adopt_fd(sv[1]);
        ev.reset(new CEventBase());
        use_location(tree.location(), 0, 0);
    }
    void TearDown() override {
        ev.reset();
        close(serverFd);
    }
    // Sets the location as a configuration does, and the copy a running scan works from.
    void use_location(const std::string& loc, uint8_t userDef, int32_t id) {
        std::lock_guard<std::mutex> lock(ev->locationMutex);
        snprintf(ev->resourceLocation, sizeof ev->resourceLocation, "%s", loc.c_str());
        ev->userDefLocation = userDef;
        ev->resourceLocationId = id;
        ev->catalogueLocation = LocationSnapshot{};
        snprintf(ev->catalogueLocation.resourceLocation, sizeof ev->resourceLocation, "%s",
                 loc.c_str());
        ev->catalogueLocation.userDefLocation = userDef;
        ev->catalogueLocation.resourceLocationId = id;
    }
    // Scan and walk as the catalogue task runs them; the entries land in `media`.
    int32_t scan(uint16_t type) {
        ev->catalogueType = type;
        media.reset(cJSON_CreateArray());
        return ev->json_look_from_dir(media.get());
    }
    // Every reply already written (the calls under test are synchronous).
    std::vector<app::Reply> replies() {
        std::vector<app::Reply> out;
        struct pollfd p = {app.fd(), POLLIN, 0};
        while (poll(&p, 1, 0) > 0) {
            out.emplace_back();
            if (app.read_reply(out.back(), 1000) != app::CLIENT_OK || !out.back().crcOk) {
                ADD_FAILURE() << "bad reply";
                break;
            }
        }
        return out;
    }

    testsupport::MediaTree tree;
    std::unique_ptr<CEventBase> ev;
    int serverFd = -1;
    app::Client app;
    Json media;
};

}  // namespace cataloguetest
}  // namespace korvel

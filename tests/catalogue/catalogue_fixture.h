// Shared set-up for the catalogue tests: a card in a temporary directory, one event base
// whose location points at it, and a socketpair whose far end decodes the replies.
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

// The string value of object[key], or "<absent>".
inline std::string str(const cJSON* object, const char* key) {
    const cJSON* item = cJSON_GetObjectItemCaseSensitive(object, key);
    return cJSON_IsString(item) ? item->valuestring : "<absent>";
}

// The member names of an object, in order.
inline std::vector<std::string> keys(const cJSON* object) {
    std::vector<std::string> k;
    for (const cJSON* c = object ? object->child : nullptr; c; c = c->next) {
        k.emplace_back(c->string);
    }
    return k;
}

// "fileName" of every entry of a media array, in order.
inline std::vector<std::string> names(const cJSON* media) {
    std::vector<std::string> n;
    const cJSON* e = nullptr;
    cJSON_ArrayForEach(e, media) {
        n.push_back(str(e, "fileName"));
    }
    return n;
}

// The entry whose "fileName" is name, or null.
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

    // What an accepted configuration leaves, written the way the configuration writes it,
    // plus the copy a running catalogue task works from.
    void use_location(const std::string& loc, uint8_t userDef, int32_t id) {
        {
            std::lock_guard<std::mutex> lock(ev->locationMutex);
            snprintf(ev->resourceLocation, sizeof ev->resourceLocation, "%s", loc.c_str());
            ev->userDefLocation = userDef;
            ev->resourceLocationId = id;
        }
        LocationSnapshot& s = ev->catalogueLocation;
        snprintf(s.resourceLocation, sizeof s.resourceLocation, "%s", loc.c_str());
        s.userDefLocation = userDef;
        s.resourceLocationId = id;
    }

    // Scan and walk only, as the catalogue task runs them; the entries land in `media`.
    int32_t scan(uint16_t type) {
        ev->catalogueType = type;
        media.reset(cJSON_CreateArray());
        return ev->json_look_from_dir(media.get());
    }

    // The whole build; returns the printed catalogue parsed back.
    Json build(uint16_t type) {
        ev->catalogueType = type;
        uint32_t len = 0;
        ev->json_file_list_create(&len);
        EXPECT_EQ(len, ev->catalogueText.size());
        return Json(cJSON_Parse(ev->catalogueText.c_str()));
    }

    // Every reply already written to the socket (the calls under test are synchronous).
    std::vector<app::Reply> replies() {
        std::vector<app::Reply> out;
        struct pollfd p = {app.fd(), POLLIN, 0};
        while (poll(&p, 1, 0) > 0) {
            app::Reply r;
            if (app.read_reply(r, 1000) != app::CLIENT_OK) {
                ADD_FAILURE() << "undecodable reply";
                break;
            }
            EXPECT_TRUE(r.crcOk);
            out.push_back(std::move(r));
        }
        return out;
    }

    void set_transfer(uint32_t packsize, uint32_t blocks) {
        ev->userDefPacksize = packsize;
        ev->userDefBlocks = blocks;
    }

    testsupport::MediaTree tree;
    std::unique_ptr<CEventBase> ev;
    int serverFd = -1;
    app::Client app;
    Json media;
};

}  // namespace cataloguetest
}  // namespace korvel

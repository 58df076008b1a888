// A card in a temporary directory and one event base pointed at it.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <cjson/cJSON.h>

#include "catalogue/catalogue.h"
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

// "fileName" of every entry, in order.
inline Names names(const cJSON* media) {
    Names n;
    const cJSON* e = nullptr;
    cJSON_ArrayForEach(e, media) {
        n.push_back(str(e, "fileName"));
    }
    return n;
}

class CatalogueTest : public ::testing::Test {
protected:
    void SetUp() override {
        testing_seam::set_sd_root(tree.card().c_str());
        ev.reset(new CEventBase());
        use_location(tree.location(), 0, 0);
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

    testsupport::MediaTree tree;
    std::unique_ptr<CEventBase> ev;
    Json media;
};

}  // namespace cataloguetest
}  // namespace korvel

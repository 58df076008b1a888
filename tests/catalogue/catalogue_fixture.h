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

}  // namespace cataloguetest
}  // namespace korvel

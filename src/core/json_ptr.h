// Owners of what cJSON hands out, for locals: a tree (cJSON_Delete) and printed text
// (cJSON_free).
#pragma once

#include <memory>

#include <cjson/cJSON.h>

namespace korvel {

struct JsonTreeDeleter {
    void operator()(cJSON* tree) const { cJSON_Delete(tree); }
};
struct JsonTextDeleter {
    void operator()(char* text) const { cJSON_free(text); }
};
using JsonTree = std::unique_ptr<cJSON, JsonTreeDeleter>;
using JsonText = std::unique_ptr<char, JsonTextDeleter>;

}  // namespace korvel

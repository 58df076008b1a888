// Storage root and capability path: the fixed constants, unless a test has moved them.
#include "core/config.h"

#include <string>

namespace korvel {

namespace {
std::string& sd_root_override() {
    static std::string value;
    return value;
}
std::string& capability_override() {
    static std::string value;
    return value;
}
}  // namespace

const char* active_sd_root() {
    const std::string& v = sd_root_override();
    return v.empty() ? SD_ROOT : v.c_str();
}

const char* active_capability_path() {
    const std::string& v = capability_override();
    return v.empty() ? CAPABILITY_PATH : v.c_str();
}

namespace testing_seam {
void set_sd_root(const char* root) {
    sd_root_override() = root ? root : "";
}
void set_capability_path(const char* path) {
    capability_override() = path ? path : "";
}
}  // namespace testing_seam

}  // namespace korvel

// Storage root and capability path: the fixed constants, unless a test has moved them.
#include "core/config.h"

#include <cstdio>

namespace korvel {

namespace {
// Plain arrays, not strings: the process-wide deleter thread may still read the root while
// the process exits, and an array has no destructor to race with.
char sdRootOverride[TEXT_BUF];
char capabilityOverride[TEXT_BUF];
}  // namespace

const char* active_sd_root() {
    return sdRootOverride[0] == '\0' ? SD_ROOT : sdRootOverride;
}

const char* active_capability_path() {
    return capabilityOverride[0] == '\0' ? CAPABILITY_PATH : capabilityOverride;
}

namespace testing_seam {
void set_sd_root(const char* root) {
    snprintf(sdRootOverride, sizeof sdRootOverride, "%s", root ? root : "");
}
void set_capability_path(const char* path) {
    snprintf(capabilityOverride, sizeof capabilityOverride, "%s", path ? path : "");
}
}  // namespace testing_seam

}  // namespace korvel

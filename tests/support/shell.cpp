#include "support/shell.h"

#include <cstdio>

namespace korvel {
namespace testsupport {

std::string run_command(const std::string& cmd, int* status) {
    std::string out;
    FILE* p = popen(cmd.c_str(), "r");
    if (p == nullptr) {
        if (status != nullptr) {
            *status = -1;
        }
        return out;
    }
    char chunk[4096];
    size_t n;
    while ((n = fread(chunk, 1, sizeof chunk, p)) > 0) {
        out.append(chunk, n);
    }
    int s = pclose(p);
    if (status != nullptr) {
        *status = s;
    }
    return out;
}

bool on_path(const char* tool) {
    int status = 0;
    run_command(std::string("command -v ") + tool + " >/dev/null 2>&1", &status);
    return status == 0;
}

}  // namespace testsupport
}  // namespace korvel

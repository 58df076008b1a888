// Request names resolved under random location settings. Byte 0 chooses the mode and the
// location, byte 1 the length of the postfix that follows; the rest is the name. Any name
// that the confinement check accepts must name a plain file in a plain directory directly
// under the location, on the card, and must be the name the catalogue would have written.
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "client/event_base.h"
#include "core/config.h"
#include "core/text.h"
#include "transfer/paths.h"

namespace {

const char* const kCard = "/tmp/korvel-fuzz-names-card";

korvel::CEventBase& event_base() {
    static korvel::CEventBase* eb = [] {
        int devnull = open("/dev/null", O_WRONLY);  // trace lines would drown the fuzzer
        if (devnull >= 0) {
            dup2(devnull, 1);
            close(devnull);
        }
        korvel::testing_seam::set_sd_root(kCard);
        return new korvel::CEventBase;
    }();
    return *eb;
}

void check(bool ok) {
    if (!ok) {
        abort();
    }
}

bool plain(const std::string& s) {
    return !s.empty() && s != "." && s != ".." && s.find('/') == std::string::npos;
}

std::string location_for(uint8_t choice) {
    const std::string card = kCard;
    switch (choice & 7) {
        case 0:
            return "";
        case 1:
            return card;
        case 2:
            return card + "/DCIM/..";
        case 3:
            return "/etc";
        case 4:
            return card + "x/DCIM";
        default:
            return card + "/DCIM";
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) {
        return 0;
    }
    korvel::CEventBase& eb = event_base();
    std::string root = location_for(data[0] >> 1);
    const int32_t ids[4] = {-1, 0, 7, 12345};
    size_t postfixLen = data[1] % 16;
    if (postfixLen > size - 2) {
        postfixLen = size - 2;
    }
    std::string postfix(reinterpret_cast<const char*>(data + 2), postfixLen);
    postfix = postfix.c_str();  // a NUL inside ends it, as in the event base's buffer
    std::string name(reinterpret_cast<const char*>(data + 2 + postfixLen), size - 2 - postfixLen);
    name = name.substr(0, 1023).c_str();
    eb.userDefLocation = data[0] & 1;
    eb.resourceLocationId = ids[(data[0] >> 4) & 3];
    korvel::copy_truncated(eb.resourceLocation, sizeof eb.resourceLocation, root.c_str());
    korvel::copy_truncated(eb.locPostfix, sizeof eb.locPostfix, postfix.c_str());

    std::string file, dir;
    if (eb.get_abs_file_dir(name.c_str(), file, dir) != 0) {
        check(eb.userDefLocation == 1);
        return 0;
    }
    if (!korvel::is_confined(root.c_str(), file, dir)) {
        return 0;
    }
    // Accepted: location/<plain dir>/<plain file>, with the location on the card.
    const std::string card = kCard;
    check(root == card || root.compare(0, card.size() + 1, card + "/") == 0);
    check(root.find("/..") == std::string::npos && root.find("/./") == std::string::npos);
    check(dir.compare(0, root.size() + 1, root + "/") == 0);
    std::string dirField = dir.substr(root.size() + 1);
    check(plain(dirField) && plain(file));
    check(dirField.find('-') == std::string::npos);
    // The catalogue's own form of the name, after any prefix field.
    std::string rest = name;
    if (eb.userDefLocation == 1) {
        rest = rest.substr(rest.find('-') + 1);
    }
    check(rest == dirField + "-" + file);
    return 0;
}

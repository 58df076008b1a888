// Request names resolved under random location settings. Byte 0 chooses the mode, the id and
// the location, byte 1 the length of the postfix that follows; the rest is the name. A name
// that the confinement check accepts must name <location>/<plain dir>/<plain file>, with the
// location on the card, exactly as the catalogue would have written it.
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "client/event_base.h"
#include "core/config.h"
#include "core/text.h"
#include "transfer/paths.h"

namespace {

const std::string kCard = "/tmp/korvel-fuzz-names-card";

bool plain(const std::string& s) {
    return !s.empty() && s != "." && s != ".." && s.find('/') == std::string::npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static korvel::CEventBase* eb = [] {
        dup2(open("/dev/null", O_WRONLY), 1);  // trace lines would drown the fuzzer
        korvel::testing_seam::set_sd_root(kCard.c_str());
        return new korvel::CEventBase;
    }();
    if (size < 2) {
        return 0;
    }
    const std::string roots[] = {
        "", kCard, kCard + "/DCIM/..", "/etc", kCard + "x/DCIM", kCard + "/DCIM"};
    const int32_t ids[4] = {-1, 0, 7, 12345};
    std::string root = roots[std::min((data[0] >> 1) & 7, 5)];
    size_t postfixLen = std::min<size_t>(data[1] % 16, size - 2);
    std::string postfix(reinterpret_cast<const char*>(data + 2), postfixLen);
    std::string name(reinterpret_cast<const char*>(data + 2 + postfixLen), size - 2 - postfixLen);
    name = name.substr(0, 1023).c_str();  // a NUL ends it, as in the packet's text
    eb->userDefLocation = data[0] & 1;
    eb->resourceLocationId = ids[(data[0] >> 4) & 3];
    korvel::copy_truncated(eb->resourceLocation, sizeof eb->resourceLocation, root.c_str());
    korvel::copy_truncated(eb->locPostfix, sizeof eb->locPostfix, postfix.c_str());
    std::string file, dir;
    if (eb->get_abs_file_dir(name.c_str(), file, dir) != 0 ||
        !korvel::is_confined(root.c_str(), file, dir)) {
        return 0;
    }
    std::string dirField = dir.substr(std::min(dir.size(), root.size() + 1));
    std::string rest = eb->userDefLocation ? name.substr(name.find('-') + 1) : name;
    if (root.compare(0, kCard.size(), kCard) != 0 || root.find("/.") != std::string::npos ||
        dir.compare(0, root.size() + 1, root + "/") != 0 || !plain(dirField) || !plain(file) ||
        rest != dirField + "-" + file) {
        abort();
    }
    return 0;
}

// Delete-request JSON against a card in a temporary directory; the first byte picks the name
// form (plain or with a prefix field). Whatever the text, the files beside the location stay
// and every queued path lies in the holding directory.
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "client/event_base.h"
#include "core/config.h"
#include "delete/deleter.h"

namespace fs = std::filesystem;

static const char* const MEDIA[] = {
    "IMG_0001.JPG", "IMG_0001.thm", "VID_0002.MP4", "VID_0002.2nd", "VID_0002.THM", "A.MOV", "B",
    "A-B.mp4"};
static const char* const SECRETS[] = {"/outside/secret.JPG", "/outside/secret.MP4",
                                      "/card/secret.JPG", "/card/secret.MP4"};

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static char base[] = "/tmp/korvel-fuzz-delete-XXXXXX";
    static korvel::DWF_DELHandler queued;  // never started: paths are checked, not removed
    static const int replies = open("/dev/null", O_WRONLY);
    static korvel::CEventBase* ev = [] {
        std::string b = mkdtemp(base);
        fs::create_directories(b + "/card/DCIM/100MEDIA");
        fs::create_directories(b + "/outside");
        for (const char* s : SECRETS) {
            std::ofstream(b + s);
        }
        fs::create_directory_symlink("../../outside", b + "/card/DCIM/LINKMEDIA");
        atexit([] { fs::remove_all(base); });
        korvel::testing_seam::set_sd_root((b + "/card").c_str());
        korvel::mdeletehanlder = &queued;
        return new korvel::CEventBase;
    }();
    if (size == 0) {
        return 0;
    }
    const std::string dcim = std::string(base) + "/card/DCIM", holding = dcim + "/tmp_delete/";
    for (const char* f : MEDIA) {
        std::ofstream(dcim + "/100MEDIA/" + f);
    }
    {
        korvel::MutexLock lock(ev->locationMutex);
        snprintf(ev->resourceLocation, sizeof ev->resourceLocation, "%s", dcim.c_str());
        snprintf(ev->locPostfix, sizeof ev->locPostfix, "%s", data[0] & 1 ? "card" : "");
        ev->userDefLocation = data[0] & 1;
    }
    ev->json_file_delete(replies,
                         std::string(reinterpret_cast<const char*>(data + 1), size - 1).c_str());
    for (const char* s : SECRETS) {
        if (!fs::exists(base + std::string(s))) {
            abort();
        }
    }
    if (std::distance(fs::directory_iterator(std::string(base) + "/outside"), {}) != 2) {
        abort();  // something was moved beside the card
    }
    for (const std::string& p : queued.pendingNames) {
        if (p.compare(0, holding.size(), holding) != 0 ||
            p.find('/', holding.size()) != std::string::npos) {
            abort();
        }
        unlink(p.c_str());  // what the deleter would do
    }
    queued.pendingNames.clear();
    return 0;
}

// Delete-request JSON against a card in a temporary directory; the first byte picks the name
// form (plain or with a prefix field). Whatever the text, the files beside the location stay
// and every queued path lies in the holding directory.
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <thread>

#include "client/event_base.h"
#include "core/config.h"
#include "delete/deleter.h"

namespace {

const char* const MEDIA[] = {
    "IMG_0001.JPG", "IMG_0001.thm", "VID_0002.MP4", "VID_0002.2nd", "VID_0002.THM", "A.MOV", "B",
    "A-B.mp4"};
const char* const SECRETS[] = {"/outside/secret.JPG", "/outside/secret.MP4", "/card/secret.JPG",
                               "/card/secret.MP4"};

void write_text(const std::string& path) {
    if (FILE* f = fopen(path.c_str(), "w")) {
        fclose(f);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static char base[] = "/tmp/korvel-fuzz-delete-XXXXXX";
    static korvel::DWF_DELHandler queued;  // never started: paths are checked, not removed
    static int sv[2] = {-1, -1};
    static korvel::CEventBase* ev = [] {
        std::string b = mkdtemp(base);
        for (const char* d : {"/card", "/card/DCIM", "/card/DCIM/100MEDIA", "/outside"}) {
            mkdir((b + d).c_str(), 0777);
        }
        for (const char* s : SECRETS) {
            write_text(b + s);
        }
        symlink("../../outside", (b + "/card/DCIM/LINKMEDIA").c_str());
        atexit([] { std::filesystem::remove_all(base); });
        korvel::testing_seam::set_sd_root((b + "/card").c_str());
        socketpair(AF_UNIX, SOCK_STREAM, 0, sv);
        std::thread([] {
            char buf[4096];
            while (read(sv[1], buf, sizeof buf) > 0) {
            }
        }).detach();
        korvel::mdeletehanlder = &queued;
        return new korvel::CEventBase;
    }();
    if (size == 0) {
        return 0;
    }
    const std::string dcim = std::string(base) + "/card/DCIM", holding = dcim + "/tmp_delete/";
    for (const char* f : MEDIA) {
        write_text(dcim + "/100MEDIA/" + f);
    }
    {
        korvel::MutexLock lock(ev->locationMutex);
        snprintf(ev->resourceLocation, sizeof ev->resourceLocation, "%s", dcim.c_str());
        snprintf(ev->locPostfix, sizeof ev->locPostfix, "%s", data[0] & 1 ? "card" : "");
        ev->userDefLocation = data[0] & 1;
    }
    std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
    ev->json_file_delete(sv[0], text.c_str());
    for (const char* s : SECRETS) {
        if (access((std::string(base) + s).c_str(), F_OK) != 0) {
            abort();
        }
    }
    if (std::distance(std::filesystem::directory_iterator(std::string(base) + "/outside"), {}) !=
        2) {
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

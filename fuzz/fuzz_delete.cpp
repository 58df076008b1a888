// Delete-request JSON against a card in a temporary directory. The first byte picks the
// name form (plain or with a prefix field); the rest is the request text. After every
// input the files beside the card must be untouched and every queued path must lie in
// the holding directory; anything else aborts.
#include <dirent.h>
#include <ftw.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>

#include "client/event_base.h"
#include "core/config.h"
#include "delete/deleter.h"

namespace {

using korvel::CEventBase;
using korvel::DWF_DELHandler;

const char* const MEDIA_FILES[] = {"IMG_0001.JPG", "IMG_0001.thm", "IMG_0001.THM",
                                   "VID_0002.MP4", "VID_0002.2nd", "VID_0002.THM",
                                   "VID_0002.thm", "A.MOV",        "B",
                                   "A-B.mp4",      "C.jpg"};
const char* const OUTSIDE_FILES[] = {"secret.JPG", "secret.MP4", "secret.2nd", "secret.thm"};

struct Card {
    std::string base, card, dcim, media, holding, outside;
    int sv[2] = {-1, -1};
    CEventBase* ev = nullptr;  // lives for the whole process, like the server's
    DWF_DELHandler queued;     // never started: paths are checked, not removed
};

void write_text(const std::string& path, const std::string& text) {
    if (FILE* f = fopen(path.c_str(), "w")) {
        fputs(text.c_str(), f);
        fclose(f);
    }
}

int remove_entry(const char* p, const struct stat*, int, struct FTW*) {
    return remove(p);
}

std::string g_base_for_cleanup;
void cleanup() {
    nftw(g_base_for_cleanup.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS);
}

void drain_replies(int fd) {
    char buf[4096];
    while (read(fd, buf, sizeof buf) > 0) {
    }
}

Card& card() {
    static Card* c = [] {
        Card* n = new Card();
        char tmpl[] = "/tmp/korvel-fuzz-delete-XXXXXX";
        n->base = mkdtemp(tmpl) ? tmpl : "/tmp/korvel-fuzz-delete";
        g_base_for_cleanup = n->base;
        atexit(cleanup);
        n->card = n->base + "/card";
        n->dcim = n->card + "/DCIM";
        n->media = n->dcim + "/100MEDIA";
        n->holding = n->dcim + "/tmp_delete";
        n->outside = n->base + "/outside";
        for (const std::string& d : {n->card, n->dcim, n->media, n->outside}) {
            mkdir(d.c_str(), 0777);
        }
        for (const char* f : OUTSIDE_FILES) {
            write_text(n->outside + "/" + f, f);
            write_text(n->card + "/" + f, f);  // inside the card, above the location
        }
        symlink("../../outside", (n->dcim + "/LINKMEDIA").c_str());
        korvel::testing_seam::set_sd_root(n->card.c_str());
        socketpair(AF_UNIX, SOCK_STREAM, 0, n->sv);
        std::thread(drain_replies, n->sv[1]).detach();
        korvel::mdeletehanlder = &n->queued;
        n->ev = new CEventBase();
        return n;
    }();
    return *c;
}

void set_location(Card& c, bool prefixed) {
    korvel::MutexLock lock(c.ev->locationMutex);
    snprintf(c.ev->resourceLocation, sizeof c.ev->resourceLocation, "%s", c.dcim.c_str());
    snprintf(c.ev->locPostfix, sizeof c.ev->locPostfix, "%s", prefixed ? "card" : "");
    c.ev->userDefLocation = prefixed ? 1 : 0;
    c.ev->resourceLocationId = 0;
}

void check_untouched(const std::string& dir) {
    for (const char* f : OUTSIDE_FILES) {
        FILE* in = fopen((dir + "/" + f).c_str(), "r");
        char got[32] = {};
        if (in == nullptr || fgets(got, sizeof got, in) == nullptr || strcmp(got, f) != 0) {
            fprintf(stderr, "file beside the location touched: %s/%s\n", dir.c_str(), f);
            abort();
        }
        fclose(in);
    }
}

size_t entries_in(const std::string& dir) {
    size_t n = 0;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d)) {
            n += e->d_name[0] != '.';
        }
        closedir(d);
    }
    return n;
}

void check_queue(Card& c) {
    const std::string prefix = c.holding + "/";
    for (const std::string& p : c.queued.pendingNames) {
        if (p.compare(0, prefix.size(), prefix) != 0 ||
            p.find('/', prefix.size()) != std::string::npos) {
            fprintf(stderr, "queued outside the holding directory: %s\n", p.c_str());
            abort();
        }
        unlink(p.c_str());  // what the deleter would do
    }
    c.queued.pendingNames.clear();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    Card& c = card();
    for (const char* f : MEDIA_FILES) {
        write_text(c.media + "/" + f, f);
    }
    set_location(c, (data[0] & 1) != 0);
    std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
    c.ev->json_file_delete(c.sv[0], text.c_str());

    check_untouched(c.outside);
    check_untouched(c.card);
    if (entries_in(c.outside) != sizeof OUTSIDE_FILES / sizeof OUTSIDE_FILES[0]) {
        fprintf(stderr, "something appeared beside the card\n");
        abort();
    }
    check_queue(c);
    return 0;
}

// App load for the footprint script: holds N configured apps connected to a running server,
// keeps N apps busy for a while with catalogues and downloads, or has N apps fetch their
// whole catalogues and stay connected without acknowledging the last package, as apps
// paging through a catalogue do. Loopback only; every loop is bounded by a count and a
// deadline, so it ends by itself.
//
// usage: footprint_clients hold N PORT
//        footprint_clients soak N SECONDS PORT [NAME]
//        footprint_clients browse N PORT
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <cjson/cJSON.h>

#include "app/client.h"

namespace korvel {
namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* HOST = "127.0.0.1";
constexpr int MAX_APPS = 1000;
constexpr int REPLY_TIMEOUT_MS = 5000;
// A held app gives up on its own after this long, even if nobody closes its stdin.
constexpr int HOLD_LIMIT_MS = 600 * 1000;
constexpr int MAX_CHUNK_REQUESTS = 4096;
constexpr int MAX_CATALOGUE_REQUESTS = 1000;
constexpr int MAX_SOAK_LOOPS = 1000000;
constexpr uint32_t HOLD_PEER_BASE = 0x4600;
constexpr uint32_t SOAK_PEER_BASE = 0x5600;
constexpr uint32_t BROWSE_PEER_BASE = 0x6600;
// A big card's first catalogue is built before its first packet goes out.
constexpr int BROWSE_TIMEOUT_MS = 60 * 1000;

struct JsonDeleter {
    void operator()(cJSON* j) const { cJSON_Delete(j); }
};
using JsonPtr = std::unique_ptr<cJSON, JsonDeleter>;

// Connects and configures, which makes the server create the app's event base.
int connect_and_configure(app::Client& c, uint16_t port, uint32_t peer, uint16_t packsize,
                          uint16_t blocks) {
    c.peerID = peer;
    if (c.connect_to(HOST, port) != app::CLIENT_OK) {
        return -1;
    }
    if (c.configure(packsize, blocks) != app::CLIENT_OK) {
        return -1;
    }
    app::Reply r;
    if (c.read_reply_of(17, r, REPLY_TIMEOUT_MS) != app::CLIENT_OK || r.reqType != 1) {
        return -1;
    }
    return 0;
}

void quit_app(app::Client& c) {
    if (c.quit() == app::CLIENT_OK) {
        app::Reply r;
        c.read_reply_of(7, r, REPLY_TIMEOUT_MS);
    }
    c.close_connection();
}

// Waits for a line or the end of stdin, at most HOLD_LIMIT_MS.
void wait_for_release() {
    pollfd p{STDIN_FILENO, POLLIN, 0};
    if (poll(&p, 1, HOLD_LIMIT_MS) > 0) {
        char line[64];
        if (read(STDIN_FILENO, line, sizeof line) < 0) {
            perror("footprint_clients: stdin");
        }
    }
}

int run_hold(int n, uint16_t port) {
    std::vector<std::unique_ptr<app::Client>> apps;
    for (int i = 0; i < n; ++i) {
        apps.emplace_back(new app::Client());
        if (connect_and_configure(*apps.back(), port, HOLD_PEER_BASE + i, 4096, 1) != 0) {
            fprintf(stderr, "footprint_clients: app %d could not connect and configure\n", i);
            return 1;
        }
    }
    printf("ready %d\n", n);
    fflush(stdout);
    wait_for_release();
    for (auto& c : apps) {
        quit_app(*c);
    }
    return 0;
}

// ---- soak ----

struct SoakStats {
    std::atomic<long> loops{0};
    std::atomic<long> downloads{0};
    std::atomic<long> catalogues{0};
    std::atomic<long long> bytes{0};
    std::atomic<long> errors{0};
};

struct SoakApp {
    app::Client client;
    uint32_t peer = 0;
    uint16_t packsize = 4096;
    uint16_t blocks = 8;
    bool connected = false;
};

uint32_t le32(const std::vector<uint8_t>& b) {
    return b[0] | b[1] << 8 | b[2] << 16 | static_cast<uint32_t>(b[3]) << 24;
}

// The whole catalogue text, page by page; empty on any failure.
std::string fetch_catalogue(SoakApp& a, int timeoutMs = REPLY_TIMEOUT_MS) {
    std::string text;
    int s = a.client.request_catalogue(1, 0, 1);
    for (int requests = 0; s == app::CLIENT_OK && requests < MAX_CATALOGUE_REQUESTS; ++requests) {
        for (uint32_t count = 0; count < a.blocks; ++count) {
            app::Reply r;
            if (a.client.read_reply_of(0, r, timeoutMs) != app::CLIENT_OK ||
                r.reqType == 1 || r.offset != text.size() || r.payload.empty()) {
                return std::string();
            }
            text.append(r.payload.begin(), r.payload.end());
            if (r.marker == 1 || r.marker == 3) {
                return text;
            }
        }
        s = a.client.request_catalogue(1, static_cast<uint32_t>(text.size()), 0);
    }
    return std::string();
}

// The display name of the k-th catalogue entry (wrapping), or "" when there is none.
std::string pick_name(const std::string& text, long k) {
    JsonPtr root(cJSON_Parse(text.c_str()));
    const cJSON* media = cJSON_GetObjectItemCaseSensitive(root.get(), "media");
    int count = cJSON_GetArraySize(media);
    if (!cJSON_IsArray(media) || count == 0) {
        return std::string();
    }
    const cJSON* entry = cJSON_GetArrayItem(media, static_cast<int>(k % count));
    const cJSON* name = cJSON_GetObjectItemCaseSensitive(entry, "fileName");
    return cJSON_IsString(name) ? name->valuestring : std::string();
}

// Reads one length-0 burst at `off`: min(burst, size - off) bytes in packets of mode 6.
int read_burst(SoakApp& a, uint32_t need) {
    uint32_t got = 0;
    while (got < need) {
        app::Reply r;
        if (a.client.read_reply_of(6, r, REPLY_TIMEOUT_MS) != app::CLIENT_OK || r.reqType == 1 ||
            r.payload.empty() || got + r.payload.size() > need) {
            return -1;
        }
        got += static_cast<uint32_t>(r.payload.size());
    }
    return 0;
}

// A whole download with length-0 chunk requests; the bytes received, or -1.
long long download(SoakApp& a, const std::string& name) {
    app::Reply r;
    if (a.client.request_download(name) != app::CLIENT_OK ||
        a.client.read_reply_of(2, r, REPLY_TIMEOUT_MS) != app::CLIENT_OK || r.reqType == 1 ||
        r.payload.size() != 4) {
        return -1;
    }
    uint32_t size = le32(r.payload);
    uint32_t burst = static_cast<uint32_t>(a.packsize) * a.blocks;
    uint32_t off = 0;
    for (int requests = 0; off < size; ++requests) {
        uint32_t need = size - off < burst ? size - off : burst;
        if (requests == MAX_CHUNK_REQUESTS || a.client.request_chunk(off, 0, 6) != app::CLIENT_OK ||
            read_burst(a, need) != 0) {
            return -1;
        }
        off += need;
    }
    return size;
}

// One pass: (re)connect and configure, list, download one file.
bool soak_once(SoakApp& a, uint16_t port, const std::string& fixedName, long k, SoakStats& st) {
    if (!a.connected) {
        a.client.close_connection();
        if (connect_and_configure(a.client, port, a.peer, a.packsize, a.blocks) != 0) {
            return false;
        }
        a.connected = true;
    }
    std::string text = fetch_catalogue(a);
    if (text.empty()) {
        return false;
    }
    ++st.catalogues;
    std::string name = fixedName.empty() ? pick_name(text, k) : fixedName;
    long long got = name.empty() ? 0 : download(a, name);
    if (got < 0) {
        return false;
    }
    ++st.downloads;
    st.bytes += got;
    return true;
}

void soak_app(int index, uint16_t port, Clock::time_point deadline, const std::string& name,
              SoakStats& st) {
    static const uint16_t kPacksizes[] = {1024, 4096, 16384, 65000};
    SoakApp a;
    a.peer = SOAK_PEER_BASE + static_cast<uint32_t>(index);
    a.packsize = kPacksizes[index % 4];
    a.blocks = static_cast<uint16_t>(4 + index % 13);
    for (long k = index; Clock::now() < deadline && k < index + MAX_SOAK_LOOPS; ++k) {
        if (!soak_once(a, port, name, k, st)) {
            ++st.errors;
            a.connected = false;
            usleep(20000);  // a refused or broken session: do not spin on it
        }
        ++st.loops;
    }
    if (a.connected) {
        quit_app(a.client);
    }
}

int run_soak(int n, int seconds, uint16_t port, const std::string& name) {
    SoakStats st;
    Clock::time_point deadline = Clock::now() + std::chrono::seconds(seconds);
    std::vector<std::thread> threads;
    for (int i = 0; i < n; ++i) {
        threads.emplace_back(soak_app, i, port, deadline, std::cref(name), std::ref(st));
    }
    for (auto& t : threads) {
        t.join();
    }
    printf("soak %d apps %d s: %ld loops, %ld catalogues, %ld downloads, %lld bytes, %ld errors\n",
           n, seconds, st.loops.load(), st.catalogues.load(), st.downloads.load(), st.bytes.load(),
           st.errors.load());
    return st.downloads.load() > 0 ? 0 : 1;
}

// ---- browse ----

// Each app fetches its whole catalogue at once (type 1, 65,535-byte packets, bursts of
// 3,200), all apps together; then they stay until released.
int run_browse(int n, uint16_t port) {
    std::vector<std::unique_ptr<SoakApp>> apps;
    std::vector<size_t> got(static_cast<size_t>(n), 0);
    std::vector<std::thread> threads;
    for (int i = 0; i < n; ++i) {
        apps.emplace_back(new SoakApp());
        SoakApp& a = *apps.back();
        a.packsize = 65535;
        a.blocks = 3200;
        if (connect_and_configure(a.client, port, BROWSE_PEER_BASE + i, a.packsize, a.blocks) != 0) {
            fprintf(stderr, "footprint_clients: app %d could not connect and configure\n", i);
            return 1;
        }
    }
    for (int i = 0; i < n; ++i) {
        threads.emplace_back([&apps, &got, i] { got[i] = fetch_catalogue(*apps[i], BROWSE_TIMEOUT_MS).size(); });
    }
    for (auto& t : threads) {
        t.join();
    }
    for (int i = 0; i < n; ++i) {
        if (got[i] == 0) {
            fprintf(stderr, "footprint_clients: app %d got no catalogue\n", i);
            return 1;
        }
    }
    printf("ready %d %zu\n", n, got[0]);
    fflush(stdout);
    wait_for_release();
    for (auto& a : apps) {
        quit_app(a->client);
    }
    return 0;
}

bool parse_int(const char* text, int lo, int hi, int& out) {
    char* end = nullptr;
    long v = strtol(text, &end, 10);
    if (end == text || *end != '\0' || v < lo || v > hi) {
        return false;
    }
    out = static_cast<int>(v);
    return true;
}

int usage() {
    fprintf(stderr,
            "usage: footprint_clients hold N PORT\n"
            "       footprint_clients soak N SECONDS PORT [NAME]\n"
            "       footprint_clients browse N PORT\n");
    return 2;
}

}  // namespace
}  // namespace korvel

int main(int argc, char** argv) {
    using namespace korvel;
    int n = 0, seconds = 0, port = 0;
    std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "hold" && argc == 4 && parse_int(argv[2], 1, MAX_APPS, n) &&
        parse_int(argv[3], 1, 65535, port)) {
        return run_hold(n, static_cast<uint16_t>(port));
    }
    if (mode == "soak" && (argc == 5 || argc == 6) && parse_int(argv[2], 1, MAX_APPS, n) &&
        parse_int(argv[3], 1, 3600, seconds) && parse_int(argv[4], 1, 65535, port)) {
        return run_soak(n, seconds, static_cast<uint16_t>(port), argc == 6 ? argv[5] : "");
    }
    if (mode == "browse" && argc == 4 && parse_int(argv[2], 1, MAX_APPS, n) &&
        parse_int(argv[3], 1, 65535, port)) {
        return run_browse(n, static_cast<uint16_t>(port));
    }
    return usage();
}

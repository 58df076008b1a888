// App sessions for the load and fault tests; each call is bounded by its reply timeout and
// by a request count, so a misbehaving server shows as Broken, never as a hang.
#include "support/soak_client.h"

#include <dirent.h>
#include <malloc.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>

#include <cjson/cJSON.h>

#include "core/packet.h"

namespace korvel {
namespace testsupport {

namespace {

// More requests than any session here needs; a server that keeps answering with too
// little would otherwise keep a test thread busy until its deadline.
constexpr int MAX_CHUNK_REQUESTS = 4096;

Fetched broken(const std::string& why) {
    Fetched f;
    f.outcome = Outcome::Broken;
    f.why = why;
    return f;
}

Fetched refused(uint32_t code) {
    Fetched f;
    f.outcome = Outcome::Refused;
    f.code = code;
    char buf[32];
    snprintf(buf, sizeof buf, "refused 0x%X", code);
    f.why = buf;
    return f;
}

std::string client_error(const char* what, int r) {
    char buf[96];
    snprintf(buf, sizeof buf, "%s: client result %d", what, r);
    return buf;
}

// One chunk request of a random form; returns the reply msgType it asks for and the bytes
// it should bring.
struct Chunk {
    uint32_t msgType = 3;
    uint32_t need = 0;
    bool thumbnail = false;
};

// Where a chunk's first packet must say it starts: a thumbnail at the requested offset, a
// file stream at its place in a region that starts on a 4096-byte boundary at or below it.
bool first_offset_fits(const Chunk& k, uint32_t headerOffset, uint32_t off) {
    if (k.thumbnail) {
        return headerOffset == off;
    }
    return headerOffset <= off && (off - headerOffset) % 4096 == 0;
}

Chunk send_chunk_request(app::Client& c, uint32_t off, uint32_t left, uint32_t burst,
                         std::mt19937& rng, bool thumbnail, int& sendResult) {
    Chunk k;
    k.thumbnail = thumbnail;
    uint32_t full = std::min(burst, left);
    uint32_t form = thumbnail ? (rng() % 2 == 0 ? 0 : 2) : rng() % 4;
    if (form == 0 || form == 1) {
        uint32_t len = full;
        // A thumbnail stream ignores the length, so only file requests get shorter ones.
        if (!thumbnail && rng() % 4 == 0) {
            len = 1 + static_cast<uint32_t>(rng() % full);
        }
        uint8_t type = form == 0 ? 3 : static_cast<uint8_t>(4 + rng() % 3);
        sendResult = c.request_chunk(off, len, type);
        k.msgType = type == 3 ? 3 : 6;
        k.need = thumbnail ? full : len;
    } else {
        k.msgType = form == 2 ? 3 : 6;
        sendResult = c.ctrl(static_cast<uint8_t>(k.msgType), off);
        k.need = full;
    }
    return k;
}

// Reads the packets of one chunk request into `out` at file offset `off`.
bool read_chunk(app::Client& c, const Chunk& k, const SessionParams& p, uint32_t off,
                std::string& out, Fetched& f) {
    uint32_t got = 0;
    uint32_t expectOffset = 0;
    while (got < k.need) {
        app::Reply r;
        int rr = c.read_reply_of(k.msgType, r, p.timeoutMs);
        if (rr != app::CLIENT_OK) {
            f = broken(client_error("chunk reply", rr));
            return false;
        }
        if (r.reqType == 1) {
            f = refused(r.ackCode);
            return false;
        }
        size_t n = r.payload.size();
        if (n == 0 || n > p.packsize || got + n > k.need ||
            (got > 0 ? r.offset != expectOffset : !first_offset_fits(k, r.offset, off))) {
            char why[160];
            snprintf(why, sizeof why,
                     "chunk packet out of place: type %u offset %u, %zu bytes after %u of %u "
                     "(request at %u)",
                     r.msgType, r.offset, n, got, k.need, off);
            f = broken(why);
            return false;
        }
        expectOffset = r.offset + static_cast<uint32_t>(n);
        out.append(reinterpret_cast<const char*>(r.payload.data()), n);
        got += static_cast<uint32_t>(n);
        // A file burst always ends in its last-packet branch (never marker 0); a thumbnail
        // burst cut short by the block count ends on an ordinary packet.
        if (got == k.need && r.marker == 0 && !k.thumbnail) {
            f = broken("last packet of a burst marked as intermediate");
            return false;
        }
    }
    return true;
}

uint32_t le32(const std::vector<uint8_t>& b) {
    return b[0] | b[1] << 8 | b[2] << 16 | static_cast<uint32_t>(b[3]) << 24;
}

}  // namespace

SessionParams random_params(std::mt19937& rng, uint32_t size, int timeoutMs) {
    SessionParams p;
    p.packsize = static_cast<uint16_t>(512 + rng() % (65535 - 512 + 1));
    uint32_t blocks = 1 + rng() % 16;
    uint32_t atLeast = size / (static_cast<uint32_t>(p.packsize) * 64) + 1;
    p.blocks = static_cast<uint16_t>(std::max(blocks, atLeast));
    p.timeoutMs = timeoutMs;
    return p;
}

int configure_session(app::Client& c, const SessionParams& p) {
    int s = c.configure(p.packsize, p.blocks);
    if (s != app::CLIENT_OK) {
        return s;
    }
    app::Reply r;
    int rr = c.read_reply_of(17, r, p.timeoutMs);
    if (rr != app::CLIENT_OK) {
        return rr;
    }
    return r.reqType == 1 ? static_cast<int>(r.ackCode) : app::CLIENT_BAD_PACKET;
}

bool request_size(app::Client& c, const std::string& name, const SessionParams& p, Fetched& f,
                  uint32_t& size) {
    int s = c.request_download(name);
    if (s != app::CLIENT_OK) {
        f = broken(client_error("download request", s));
        return false;
    }
    app::Reply r;
    int rr = c.read_reply_of(2, r, p.timeoutMs);
    if (rr != app::CLIENT_OK) {
        f = broken(client_error("size reply", rr));
        return false;
    }
    if (r.reqType == 1) {
        f = refused(r.ackCode);
        return false;
    }
    if (r.payload.size() != 4) {
        f = broken("size reply of the wrong length");
        return false;
    }
    size = le32(r.payload);
    return true;
}

Fetched download(app::Client& c, const std::string& name, const SessionParams& p, std::mt19937& rng,
                 bool thumbnail) {
    Fetched f;
    uint32_t size = 0;
    if (!request_size(c, name, p, f, size)) {
        return f;
    }
    uint32_t burst = static_cast<uint32_t>(p.packsize) * p.blocks;
    std::string out;
    out.reserve(size);
    for (int requests = 0; out.size() < size; ++requests) {
        if (requests == MAX_CHUNK_REQUESTS) {
            return broken("too many chunk requests");
        }
        uint32_t off = static_cast<uint32_t>(out.size());
        int s = app::CLIENT_OK;
        Chunk k = send_chunk_request(c, off, size - off, burst, rng, thumbnail, s);
        if (s != app::CLIENT_OK) {
            return broken(client_error("chunk request", s));
        }
        if (!read_chunk(c, k, p, off, out, f)) {
            return f;
        }
    }
    f.outcome = Outcome::Done;
    f.bytes = std::move(out);
    return f;
}

bool read_document_burst(app::Client& c, uint32_t msgType, const SessionParams& p,
                         std::string& text, bool& last, Fetched& f) {
    last = false;
    for (uint32_t count = 0; count < p.blocks && !last; ++count) {
        app::Reply r;
        int rr = c.read_reply_of(msgType, r, p.timeoutMs);
        if (rr != app::CLIENT_OK) {
            f = broken(client_error("document reply", rr));
            return false;
        }
        if (r.reqType == 1) {
            f = refused(r.ackCode);
            return false;
        }
        if (r.offset != text.size() || r.payload.empty() || r.payload.size() > p.packsize) {
            f = broken("document packet out of place");
            return false;
        }
        text.append(reinterpret_cast<const char*>(r.payload.data()), r.payload.size());
        last = r.marker == 1 || r.marker == 3;
    }
    return true;
}

namespace {

Fetched done(std::string& text) {
    Fetched f;
    f.outcome = Outcome::Done;
    f.bytes = std::move(text);
    return f;
}

}  // namespace

Fetched fetch_catalogue(app::Client& c, uint16_t type, const SessionParams& p, int maxRequests) {
    std::string text;
    int s = c.request_catalogue(type, 0, 1);
    for (int requests = 1; s == app::CLIENT_OK; ++requests) {
        Fetched f;
        bool last = false;
        if (!read_document_burst(c, 0, p, text, last, f)) {
            return f;
        }
        if (last) {
            return done(text);
        }
        if (requests == maxRequests) {
            return broken("catalogue longer than the request budget");
        }
        s = c.request_catalogue(type, static_cast<uint32_t>(text.size()), 0);
    }
    return broken(client_error("catalogue request", s));
}

Fetched fetch_metadata(app::Client& c, const std::string& name, const SessionParams& p) {
    int s = c.request_metadata(name);
    if (s != app::CLIENT_OK) {
        return broken(client_error("metadata request", s));
    }
    std::string text;
    Fetched f;
    bool last = false;
    if (!read_document_burst(c, 19, p, text, last, f)) {
        return f;
    }
    return last ? done(text) : broken("metadata reply longer than one burst");
}

bool end_session(app::Client& c, bool quit, int timeoutMs) {
    if (!quit) {
        return c.ack_last_package(1) == app::CLIENT_OK;
    }
    if (c.quit() != app::CLIENT_OK) {
        return false;
    }
    app::Reply r;
    return c.read_reply_of(7, r, timeoutMs) == app::CLIENT_OK && r.reqType == 1 &&
           r.ackCode == ACK_DONE;
}

std::string clean_session(uint16_t port, uint32_t peer, int minEntries, const std::string& name,
                          const std::string& bytes) {
    app::Client c;
    c.peerID = peer;
    SessionParams p;
    p.packsize = 8192;
    p.blocks = 16;
    p.timeoutMs = 3000;
    if (c.connect_to("127.0.0.1", port, p.timeoutMs) != app::CLIENT_OK ||
        configure_session(c, p) != static_cast<int>(ACK_DONE)) {
        return "no session";
    }
    Fetched cat = fetch_catalogue(c, 1, p);
    if (cat.outcome != Outcome::Done || catalogue_entries(cat.bytes) < minEntries) {
        return "catalogue: " + (cat.why.empty() ? "too few entries" : cat.why);
    }
    if (!name.empty()) {
        std::mt19937 rng(1);
        if (!end_session(c, true, p.timeoutMs) ||
            configure_session(c, p) != static_cast<int>(ACK_DONE)) {
            return "no second session";
        }
        Fetched f = download(c, name, p, rng, false);
        if (f.outcome != Outcome::Done || f.bytes != bytes) {
            return "download of " + name + ": " + (f.why.empty() ? "other bytes" : f.why);
        }
    }
    return end_session(c, true, p.timeoutMs) ? "" : "no quit";
}

int open_fd_count() {
    DIR* d = opendir("/proc/self/fd");
    if (d == nullptr) {
        return -1;
    }
    int n = 0;
    while (dirent* e = readdir(d)) {
        if (e->d_name[0] != '.') {
            ++n;
        }
    }
    closedir(d);
    return n - 1;  // the directory stream's own descriptor
}

long heap_in_use_kib() {
    malloc_trim(0);
    struct mallinfo2 mi = mallinfo2();
    return static_cast<long>((mi.uordblks + mi.hblkhd) / 1024);
}

int catalogue_entries(const std::string& text) {
    std::unique_ptr<cJSON, decltype(&cJSON_Delete)> root(cJSON_Parse(text.c_str()), cJSON_Delete);
    if (!root || !cJSON_IsObject(root.get())) {
        return -1;
    }
    cJSON* media = cJSON_GetObjectItem(root.get(), "media");
    return cJSON_IsArray(media) ? cJSON_GetArraySize(media) : -1;
}

}  // namespace testsupport
}  // namespace korvel

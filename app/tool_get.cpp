// korvel-app get and thumb: a download request, then length-0 chunk requests burst by burst,
// each packet's bytes written where its header offset puts them, with a progress display.
#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cstring>

#include "app/tool.h"
#include "core/byte_order.h"
#include "core/packet.h"

namespace korvel {
namespace app {

namespace {

constexpr uint32_t MAP_PAGE = 4096;

double now_s() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

// Progress of one file: a redrawn bar on a terminal, a line per tenth otherwise.
struct Progress {
    FILE* f = nullptr;
    bool tty = false;
    std::string name;
    uint32_t total = 0;
    uint32_t startAt = 0;  // bytes already there when the transfer began
    double t0 = 0, lastDraw = 0;
    uint32_t lastTenth = 0;

    void begin(FILE* stream, const std::string& n, uint32_t size, uint32_t have) {
        f = stream;
        tty = isatty(fileno(stream)) == 1;
        name = n;
        total = size;
        startAt = have;
        t0 = lastDraw = now_s();
        lastTenth = size != 0 ? static_cast<uint32_t>(uint64_t{have} * 10 / size) : 10;
        if (have != 0) {
            fprintf(f, "%s: resuming at %u of %u bytes\n", name.c_str(), have, size);
        }
    }

    double rate(uint32_t done) const {
        double dt = now_s() - t0;
        return dt > 0 ? (done - startAt) / dt / 1e6 : 0.0;
    }

    void update(uint32_t done) {
        uint32_t pct = total != 0 ? static_cast<uint32_t>(uint64_t{done} * 100 / total) : 100;
        if (tty) {
            double t = now_s();
            if (t - lastDraw < 0.1 && done != total) {
                return;
            }
            lastDraw = t;
            double mbs = rate(done);
            double eta = mbs > 0 ? (total - done) / (mbs * 1e6) : 0.0;
            char bar[31];
            uint32_t filled = pct * 30 / 100;
            for (uint32_t i = 0; i < 30; ++i) {
                bar[i] = i < filled ? '#' : '.';
            }
            bar[30] = '\0';
            fprintf(f, "\r%-24.24s [%s] %3u%% %7.2f MB/s ETA %3d:%02d", name.c_str(), bar, pct, mbs,
                    static_cast<int>(eta) / 60, static_cast<int>(eta) % 60);
            fflush(f);
        } else if (pct / 10 > lastTenth) {
            lastTenth = pct / 10;
            fprintf(f, "%s: %u/%u bytes (%u%%)\n", name.c_str(), done, total, pct);
        }
    }

    void finish() {
        if (tty) {
            fputc('\n', f);
        }
    }
};

struct Transfer {
    int fd = -1;
    uint32_t size = 0;
    uint32_t done = 0;  // bytes of the local file, always a prefix of the remote one
};

// The download request: size reply (4 bytes little-endian) or a status code.
int ask_size(Session& s, const std::string& name, bool quietNotFound, uint32_t& size) {
    int r = s.client.request_download(name);
    if (r != CLIENT_OK) {
        return report_client_error(s, r, name.c_str());
    }
    Reply reply;
    int rc = session_read(s, reply, name.c_str());
    if (rc != EXIT_OK) {
        return rc;
    }
    if (reply.reqType == REQ_CONTROL) {
        if (quietNotFound && reply.ackCode == ACK_NOT_FOUND) {
            return EXIT_NOT_FOUND;
        }
        return report_ack(s, reply, name.c_str());
    }
    if (reply.msgType != MSG_DOWNLOAD || reply.payload.size() != 4) {
        fprintf(s.err, "korvel-app: %s: unexpected size reply\n", name.c_str());
        return EXIT_PROTOCOL;
    }
    size = load_le32(reply.payload.data());
    return EXIT_OK;
}

// Opens the local file; with resume keeps a prefix no longer than the remote file.
int open_local(Session& s, const std::string& path, bool resume, Transfer& t) {
    t.fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    struct stat st {};
    if (t.fd < 0 || fstat(t.fd, &st) != 0) {
        fprintf(s.err, "korvel-app: %s: %s\n", path.c_str(), strerror(errno));
        return EXIT_LOCAL;
    }
    t.done = static_cast<uint32_t>(st.st_size);
    if (!resume || st.st_size > static_cast<off_t>(t.size)) {
        // A longer local file is not a prefix of this one: start over.
        if (ftruncate(t.fd, 0) != 0) {
            fprintf(s.err, "korvel-app: %s: %s\n", path.c_str(), strerror(errno));
            return EXIT_LOCAL;
        }
        t.done = 0;
    }
    return EXIT_OK;
}

// Checks one streamed packet against the burst so far and writes its bytes.
// base is the file offset of header offset 0 (the server counts from its mapped page).
int take_packet(Session& s, const std::string& name, const Reply& reply, uint32_t reqOff,
                uint32_t expected, uint32_t got, uint64_t& base, Transfer& t) {
    uint32_t len = static_cast<uint32_t>(reply.payload.size());
    if (reply.msgType != MSG_CHUNK || len == 0 || len > expected - got) {
        fprintf(s.err, "korvel-app: %s: unexpected packet in the stream\n", name.c_str());
        return EXIT_PROTOCOL;
    }
    if (got == 0) {
        // The first byte of a burst is the requested one; its header offset tells the page
        // the server mapped from (or 0 for a thumbnail held in memory).
        if (reply.offset > reqOff || (reqOff - reply.offset) % MAP_PAGE != 0) {
            fprintf(s.err, "korvel-app: %s: bad stream offset %u\n", name.c_str(), reply.offset);
            return EXIT_PROTOCOL;
        }
        base = reqOff - reply.offset;
    }
    if (base + reply.offset != uint64_t{reqOff} + got) {
        fprintf(s.err, "korvel-app: %s: stream offset %u out of order\n", name.c_str(),
                reply.offset);
        return EXIT_PROTOCOL;
    }
    bool endMarker = reply.marker == MARKER_LAST || reply.marker == MARKER_CONT_LAST;
    if (endMarker && reqOff + got + len != t.size) {
        fprintf(s.err, "korvel-app: %s: the stream ended early\n", name.c_str());
        return EXIT_PROTOCOL;
    }
    ssize_t w = pwrite(t.fd, reply.payload.data(), len, static_cast<off_t>(reqOff) + got);
    if (w != static_cast<ssize_t>(len)) {
        fprintf(s.err, "korvel-app: %s: write failed: %s\n", name.c_str(), strerror(errno));
        return EXIT_LOCAL;
    }
    return EXIT_OK;
}

// One length-0 chunk request and its burst: exactly min(burst, rest) bytes come back.
int fetch_burst(Session& s, const std::string& name, Transfer& t, uint32_t burst) {
    uint32_t reqOff = t.done;
    uint32_t rest = t.size - reqOff;
    uint32_t expected = burst < rest ? burst : rest;
    int r = s.client.ctrl(MSG_CHUNK, reqOff);
    if (r != CLIENT_OK) {
        return report_client_error(s, r, name.c_str());
    }
    Reply reply;
    uint64_t base = 0;
    uint32_t got = 0;
    while (got < expected) {
        int rc = session_read(s, reply, name.c_str());
        if (rc != EXIT_OK) {
            return rc;
        }
        if (reply.reqType == REQ_CONTROL) {
            return report_ack(s, reply, name.c_str());
        }
        rc = take_packet(s, name, reply, reqOff, expected, got, base, t);
        if (rc != EXIT_OK) {
            return rc;
        }
        got += static_cast<uint32_t>(reply.payload.size());
        t.done = reqOff + got;
    }
    return EXIT_OK;
}

int stream_file(Session& s, const std::string& name, const std::string& path, Transfer& t) {
    uint32_t burst = uint32_t{s.opt.packsize} * s.opt.blocks;
    Progress prog;
    prog.begin(s.err, name, t.size, t.done);
    double t0 = now_s();
    uint32_t first = t.done;
    while (t.done < t.size) {
        int rc = fetch_burst(s, name, t, burst);
        if (rc != EXIT_OK) {
            prog.finish();
            return rc;
        }
        prog.update(t.done);
    }
    prog.finish();
    struct stat st {};
    if (fstat(t.fd, &st) != 0 || st.st_size != static_cast<off_t>(t.size)) {
        fprintf(s.err, "korvel-app: %s: local size differs from the announced %u bytes\n",
                name.c_str(), t.size);
        return EXIT_PROTOCOL;
    }
    double dt = now_s() - t0;
    fprintf(s.out, "%s: %u bytes -> %s (%.2f MB/s)\n", name.c_str(), t.size, path.c_str(),
            dt > 0 ? (t.size - first) / dt / 1e6 : 0.0);
    return EXIT_OK;
}

// The local name of a remote one: never a path of its own.
std::string local_name(const std::string& name) {
    size_t slash = name.find_last_of('/');
    std::string base = slash == std::string::npos ? name : name.substr(slash + 1);
    return base == "." || base == ".." ? std::string() : base;
}

}  // namespace

int download_one(Session& s, const std::string& name, const std::string& localPath, bool resume,
                 bool quietNotFound) {
    int rc = session_open(s);
    if (rc == EXIT_OK) {
        rc = session_configure(s, s.opt.packsize, s.opt.blocks);
    }
    uint32_t size = 0;
    if (rc == EXIT_OK) {
        rc = ask_size(s, name, quietNotFound, size);
    }
    if (rc != EXIT_OK) {
        if (rc >= EXIT_NOT_FOUND) {
            session_quit(s);  // the server is still talking to us: end politely
        }
        s.client.close_connection();
        return rc;
    }
    Transfer t;
    t.size = size;
    rc = open_local(s, localPath, resume, t);
    if (rc == EXIT_OK) {
        rc = stream_file(s, name, localPath, t);
    }
    if (t.fd >= 0) {
        close(t.fd);
    }
    if (rc == EXIT_OK) {
        session_end_last_package(s);
    } else if (rc >= EXIT_NOT_FOUND || rc == EXIT_LOCAL) {
        session_quit(s);
    }
    s.client.close_connection();
    return rc;
}

int cmd_get(Session& s, const std::vector<std::string>& args) {
    std::vector<std::string> names;
    std::string dir = ".";
    for (size_t i = 0; i < args.size(); ++i) {
        uint32_t v = 0;
        const std::string& a = args[i];
        bool hasValue = i + 1 < args.size();
        if (a == "-o" && hasValue) {
            dir = args[++i];
        } else if (a == "--packsize" && hasValue && parse_u32(args[i + 1], 65535, v) && v > 0) {
            s.opt.packsize = static_cast<uint16_t>(v);
            ++i;
        } else if (a == "--blocks" && hasValue && parse_u32(args[i + 1], 65535, v) && v > 0) {
            s.opt.blocks = static_cast<uint16_t>(v);
            ++i;
        } else if (!a.empty() && a[0] == '-') {
            return usage_error(s, "get", ("bad option " + a).c_str());
        } else {
            names.push_back(a);
        }
    }
    if (names.empty()) {
        return usage_error(s, "get", "no file name given");
    }
    int first = EXIT_OK;
    for (const std::string& name : names) {
        std::string local = local_name(name);
        if (local.empty()) {
            first = first != EXIT_OK ? first : usage_error(s, "get", "unusable file name");
            continue;
        }
        int rc = download_one(s, name, dir + "/" + local, true, false);
        if (first == EXIT_OK) {
            first = rc;
        }
        if (rc == EXIT_REFUSED || rc == EXIT_TIMEOUT || rc == EXIT_CLOSED) {
            break;  // the server is gone; the other names would fail the same way
        }
    }
    return first;
}

int cmd_thumb(Session& s, const std::vector<std::string>& args) {
    std::string name, out;
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "-o" && i + 1 < args.size()) {
            out = args[++i];
        } else if (!args[i].empty() && args[i][0] == '-') {
            return usage_error(s, "thumb", ("bad option " + args[i]).c_str());
        } else if (name.empty()) {
            name = args[i];
        } else {
            return usage_error(s, "thumb", "one name at a time");
        }
    }
    if (name.empty()) {
        return usage_error(s, "thumb", "no file name given");
    }
    // A photo's or video's thumbnail is its stem with .thm (which the server also makes from
    // a JPEG's EXIF thumbnail) or .THM beside it.
    std::vector<std::string> candidates;
    size_t dot = name.find_last_of('.');
    std::string ext = dot == std::string::npos ? "" : name.substr(dot + 1);
    if (ext == "thm" || ext == "THM") {
        candidates.push_back(name);
    } else {
        std::string stem = name.substr(0, dot);
        candidates = {stem + ".thm", stem + ".THM"};
    }
    int rc = EXIT_NOT_FOUND;
    for (size_t i = 0; i < candidates.size() && rc == EXIT_NOT_FOUND; ++i) {
        std::string local = out.empty() ? local_name(candidates[i]) : out;
        bool last = i + 1 == candidates.size();
        rc = download_one(s, candidates[i], local, false, !last);
    }
    return rc;
}

}  // namespace app
}  // namespace korvel

// What one hostile app or one strange file costs everyone else: the server runs in a child
// process (its own limits, its own peak RSS) over a scratch card; an attacker does its
// worst while a well-behaved app makes configuration round trips. Per scenario: round
// trips made, their median and worst time, failed ones, and the server's VmHWM.
//
// Usage: bench_hostile [--seconds N] SCENARIO...
//   none         no attack (the baseline)
//   threads      new peerIDs until no worker thread can be made (server: 7 threads free)
//   descriptors  idle connections until accept fails (server: 40 descriptors)
//   slowreader   a 200 MiB burst read by nobody, bad checksums and downloads meanwhile
//   floods       400 deletes queued behind a busy worker, 300 connections parked mid-packet
//   fifo         a FIFO named IMG_0001.JPG, and a metadata request on it
//   symlink      a media directory that is a symlink to /, and a catalogue request
//   mp4free      an MP4 of 32 MiB of 8-byte free boxes, and a metadata request on it
//   bigmoov      an MP4 whose moov box is 32 MiB, and a metadata request on it
#include <arpa/inet.h>
#include <fcntl.h>
#include <grp.h>
#include <malloc.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "app/client.h"
#include "core/config.h"
#include "core/packet.h"
#include "server/server.h"

namespace {

using Clock = std::chrono::steady_clock;
using Apps = std::vector<std::unique_ptr<korvel::app::Client>>;
constexpr int TRIP_TIMEOUT_MS = 3000;
const char* const SLOW_FILE = "100MEDIA-VID_0001.MP4";

struct Scenario {
    const char* name;
    int nofile;     // RLIMIT_NOFILE of the server, 0 = unchanged
    int freeThreads;  // threads the server may start beyond its three, 0 = unlimited
};

const Scenario SCENARIOS[] = {
    {"none", 0, 0},      {"threads", 0, 7},   {"descriptors", 40, 0}, {"slowreader", 0, 0},
    {"floods", 0, 0},    {"fifo", 0, 0},      {"symlink", 0, 0},      {"mp4free", 0, 0},
    {"bigmoov", 0, 0},
};

void write_bytes(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

std::string box(const char* type, uint32_t size) {
    std::string b(8, '\0');
    b[0] = static_cast<char>(size >> 24);
    b[1] = static_cast<char>(size >> 16);
    b[2] = static_cast<char>(size >> 8);
    b[3] = static_cast<char>(size);
    memcpy(&b[4], type, 4);
    return b;
}

// The scratch card: one media directory with the scenario's file in it.
void make_card(const std::string& root, const std::string& name) {
    std::string media = root + "/DCIM/100MEDIA";
    system(("rm -rf '" + root + "' && mkdir -p '" + media + "'").c_str());
    write_bytes(media + "/IMG_0002.JPG", "\xFF\xD8\xFF\xD9");
    int fd = open((media + "/VID_0001.MP4").c_str(), O_CREAT | O_WRONLY, 0644);
    if (fd >= 0 && ftruncate(fd, 200 << 20) == 0) {  // sparse: costs no disk
        close(fd);
    }
    if (name == "fifo") {
        mkfifo((media + "/IMG_0001.JPG").c_str(), 0644);
    } else if (name == "symlink") {
        symlink("/", (root + "/DCIM/101MEDIA").c_str());
    } else if (name == "mp4free" || name == "bigmoov") {
        std::string mp4 = box("ftyp", 16) + "isom" + std::string(4, '\0');
        if (name == "mp4free") {
            for (uint32_t i = 0; i < (32u << 20) / 8; ++i) {
                mp4 += box("free", 8);
            }
        } else {
            mp4 += box("moov", 32u << 20) + std::string((32u << 20) - 8, '\0');
        }
        write_bytes(media + "/VID_0002.MP4", mp4);
    }
}

// The server process: limits first, then the loop for ever. The port goes to the parent.
[[noreturn]] void run_server(const Scenario& s, const std::string& root, int portPipe) {
    mallopt(M_ARENA_MAX, 2);
    signal(SIGPIPE, SIG_IGN);
    int quiet = open("/dev/null", O_WRONLY);  // the server's trace and warnings
    dup2(quiet, 1);
    dup2(quiet, 2);
    if (s.nofile > 0) {
        rlimit lim{static_cast<rlim_t>(s.nofile), static_cast<rlim_t>(s.nofile)};
        setrlimit(RLIMIT_NOFILE, &lim);
    }
    if (s.freeThreads > 0) {  // as nobody, so that RLIMIT_NPROC applies to root too
        system(("chmod -R a+rwX '" + root + "'").c_str());
        rlimit lim{128, 128};
        setrlimit(RLIMIT_NPROC, &lim);
        if (setgroups(0, nullptr) != 0 || setgid(65534) != 0 || setuid(65534) != 0) {
            _exit(3);
        }
        // What nobody already runs is unknown: probe it with children that wait.
        std::vector<pid_t> probe;
        while (probe.size() < 128) {
            pid_t p = fork();
            if (p == 0) {
                pause();
                _exit(0);
            }
            if (p < 0) {
                break;
            }
            probe.push_back(p);
        }
        for (pid_t p : probe) {
            kill(p, SIGKILL);
            waitpid(p, nullptr, 0);
        }
        // This thread is among the used ones; the reaper and the deleter come on top.
        lim.rlim_cur = lim.rlim_max = 128 - probe.size() + 2 + s.freeThreads;
        setrlimit(RLIMIT_NPROC, &lim);
    }
    korvel::testing_seam::set_sd_root(root.c_str());
    korvel::CDownload server(0);
    server.korvel_download_init();
    uint16_t port = server.bound_port();
    if (write(portPipe, &port, sizeof port) != sizeof port) {
        _exit(4);
    }
    close(portPipe);
    for (;;) {
        server.loop_pass(korvel::LOOP_PASS_MS);
    }
}

long vm_hwm_kib(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(in, line)) {
        if (line.compare(0, 6, "VmHWM:") == 0) {
            return atol(line.c_str() + 6);
        }
    }
    return -1;
}

bool connect_app(korvel::app::Client& c, uint16_t port, uint32_t peer, int timeoutMs = 3000) {
    c.peerID = peer;
    return c.connect_to("127.0.0.1", port, timeoutMs) == korvel::app::CLIENT_OK;
}

// One configuration round trip in µs, -1 when it failed or timed out.
long config_trip(korvel::app::Client& c) {
    auto start = Clock::now();
    korvel::app::Reply r;
    if (c.configure(4096, 1) != 0 || c.read_reply_of(korvel::MSG_CONFIG, r, TRIP_TIMEOUT_MS) != 0) {
        return -1;
    }
    return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start).count();
}

// Attack connections: a short connect timeout, since a full backlog drops SYNs.
Apps open_apps(uint16_t port, int n, uint32_t firstPeer, const std::atomic<bool>& stop) {
    Apps apps;
    for (int i = 0; i < n && !stop; ++i) {
        std::unique_ptr<korvel::app::Client> c(new korvel::app::Client);
        if (connect_app(*c, port, firstPeer + static_cast<uint32_t>(i), 200)) {
            apps.push_back(std::move(c));
        }
    }
    return apps;
}

// A connection with a 4 KiB receive window that asks for a 200 MiB burst.
void start_slow_stream(korvel::app::Client& slow, uint16_t port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    int window = 4096;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &window, sizeof window);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(port);
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa);
    slow.adopt_fd(fd);
    slow.peerID = 900;
    korvel::app::Reply r;
    slow.configure(65535, 3200);
    slow.read_reply_of(korvel::MSG_CONFIG, r, TRIP_TIMEOUT_MS);
    slow.request_download(SLOW_FILE);
    slow.read_reply_of(korvel::MSG_DOWNLOAD, r, TRIP_TIMEOUT_MS);
    slow.ctrl(korvel::MSG_CHUNK);
}

// The attacker, on its own thread until `stop`.
void attack(const std::string& name, uint16_t port, const std::atomic<bool>& stop) {
    Apps held;
    korvel::app::Client slow;
    if (name == "threads") {
        for (uint32_t round = 0; !stop; ++round) {
            held = open_apps(port, 20, 1000 + round * 20, stop);
            for (auto& c : held) {
                c->configure(4096, 1);
            }
        }
    } else if (name == "descriptors") {
        held = open_apps(port, 100, 1000, stop);
    } else if (name == "slowreader" || name == "floods") {
        start_slow_stream(slow, port);
        std::vector<uint8_t> bad =
            korvel::app::encode_packet(1, 1, korvel::MSG_POSITION, 0, 900, 0, 0, "\0\0\0\0", 4);
        bad.back() ^= 0xFF;
        if (name == "floods") {
            std::string names = "{\"media\": [\"" + std::string(60000, 'x') + "\"]}";
            for (int i = 0; i < 400 && !stop; ++i) {
                slow.request_delete(names);
            }
            std::vector<uint8_t> half = korvel::app::encode_packet(
                0, 1, korvel::MSG_DELETE, 1, 5, 0, 0, std::string(65000, 'y').data(), 65000);
            half.resize(20 + 65000);
            held = open_apps(port, 300, 2000, stop);
            for (auto& c : held) {
                c->send_raw(half.data(), half.size());
            }
        }
        while (!stop && name == "slowreader") {
            slow.send_raw(bad.data(), bad.size());
            slow.request_download(SLOW_FILE);
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    } else if (name != "none") {
        korvel::app::Client c;
        connect_app(c, port, 950);
        korvel::app::Reply r;
        c.configure(4096, 1);
        c.read_reply_of(korvel::MSG_CONFIG, r, TRIP_TIMEOUT_MS);
        if (name == "symlink") {
            c.request_catalogue(1, 0, 1);
        } else {
            c.request_metadata(name == "fifo" ? "100MEDIA-IMG_0001.JPG" : "100MEDIA-VID_0002.MP4");
        }
    }
    while (!stop) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

void run(const Scenario& s, int seconds) {
    std::string root = "/tmp/korvel_bench_hostile_card";
    make_card(root, s.name);
    int fds[2];
    if (pipe(fds) != 0) {
        return;
    }
    pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        run_server(s, root, fds[1]);
    }
    close(fds[1]);
    uint16_t port = 0;
    if (read(fds[0], &port, sizeof port) != sizeof port) {
        printf("%-12s server did not start\n", s.name);
        waitpid(pid, nullptr, 0);
        return;
    }
    close(fds[0]);
    korvel::app::Client good;
    connect_app(good, port, 7);
    config_trip(good);
    std::atomic<bool> stop{false};
    std::thread attacker(attack, std::string(s.name), port, std::cref(stop));
    std::vector<long> trips;
    int failed = 0;
    auto end = Clock::now() + std::chrono::seconds(seconds);
    while (Clock::now() < end) {
        long ms = config_trip(good);
        if (ms < 0) {
            ++failed;
            connect_app(good, port, 7);  // a failed trip leaves the stream out of step
            continue;
        }
        trips.push_back(ms);
    }
    stop = true;
    attacker.join();
    long hwm = vm_hwm_kib(pid);
    int status = 0;
    bool alive = waitpid(pid, &status, WNOHANG) == 0;
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
    std::sort(trips.begin(), trips.end());
    double median = trips.empty() ? -1 : trips[trips.size() / 2] / 1000.0;
    double worst = trips.empty() ? -1 : trips.back() / 1000.0;
    printf("%-12s %6zu %8.2f %8.2f %7d %10ld %s\n", s.name, trips.size(), median, worst, failed,
           hwm, alive ? "" : "SERVER DIED");
    fflush(stdout);
    system(("rm -rf '" + root + "'").c_str());
}

}  // namespace

int main(int argc, char** argv) {
    signal(SIGPIPE, SIG_IGN);
    int seconds = 10;
    std::vector<const Scenario*> chosen;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--seconds") == 0 && i + 1 < argc) {
            seconds = atoi(argv[++i]);
            continue;
        }
        const Scenario* found = nullptr;
        for (const Scenario& s : SCENARIOS) {
            if (strcmp(s.name, argv[i]) == 0) {
                found = &s;
            }
        }
        if (found == nullptr) {
            fprintf(stderr, "unknown scenario %s\n", argv[i]);
            return 2;
        }
        chosen.push_back(found);
    }
    if (chosen.empty()) {
        for (const Scenario& s : SCENARIOS) {
            chosen.push_back(&s);
        }
    }
    printf("%-12s %6s %8s %8s %7s %10s\n", "scenario", "trips", "med_ms", "worst_ms", "failed",
           "VmHWM_KiB");
    for (const Scenario* s : chosen) {
        run(*s, seconds);
    }
    return 0;
}

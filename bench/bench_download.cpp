// End-to-end download speed: the real server loop on a thread and the app-side client over
// loopback, fetching one file with length-0 chunk requests, against a plain sendfile()
// sender over loopback in the same run, same file, same (warm) page cache.
//
// Usage: bench_download [MiB]   (default 1024; the file is written for real, not sparse,
// and removed at the end). Prints one row per sender: MB/s, the sender's CPU seconds per
// GiB, and the speed relative to sendfile.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "app/client.h"
#include "core/config.h"
#include "server/server.h"

namespace {

using Clock = std::chrono::steady_clock;

double cpu_seconds(int who) {
    rusage ru{};
    getrusage(who, &ru);
    return ru.ru_utime.tv_sec + ru.ru_stime.tv_sec +
           (ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

struct Row {
    const char* name;
    double seconds = 0;    // wall time of the whole transfer
    double serverCpu = 0;  // CPU of the sending side
    uint64_t bytes = 0;
    bool ok = false;
};

bool write_test_file(const std::string& path, uint64_t bytes) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) {
        return false;
    }
    std::vector<char> block(1 << 20);
    uint32_t x = 1;
    for (char& c : block) {
        x = x * 1103515245u + 12345u;
        c = static_cast<char>(x >> 16);
    }
    for (uint64_t done = 0; done < bytes;) {
        size_t n = bytes - done < block.size() ? bytes - done : block.size();
        block[0] = static_cast<char>(done >> 20);  // every block differs a little
        if (write(fd, block.data(), n) != static_cast<ssize_t>(n)) {
            close(fd);
            return false;
        }
        done += n;
    }
    close(fd);
    return true;
}

// One file through the server: configure, name it, then length-0 requests burst by burst.
// The server's CPU is the process's minus this (client) thread's.
Row korvel_row(const char* name, uint16_t port, uint32_t peer, uint16_t packsize, uint16_t blocks,
               uint64_t size) {
    Row row{name};
    korvel::app::Client app;
    app.peerID = peer;
    if (app.connect_to("127.0.0.1", port) != korvel::app::CLIENT_OK) {
        return row;
    }
    korvel::app::Reply r;
    if (app.configure(packsize, blocks) != 0 || app.read_reply(r) != 0 || r.ackCode != 0xFB00) {
        return row;
    }
    double self0 = cpu_seconds(RUSAGE_SELF), mine0 = cpu_seconds(RUSAGE_THREAD);
    Clock::time_point t0 = Clock::now();
    if (app.request_download("100MEDIA-BIG.MP4") != 0 || app.read_reply(r) != 0 ||
        r.payload.size() != 4) {
        return row;
    }
    const uint64_t burst = static_cast<uint64_t>(packsize) * blocks;
    uint64_t got = 0;
    while (got < size) {
        uint64_t want = size - got < burst ? size - got : burst;
        app.request_chunk(static_cast<uint32_t>(got), 0);
        for (uint64_t inBurst = 0; inBurst < want;) {
            if (app.read_reply(r, 10000) != 0 || r.reqType != 0) {
                std::fprintf(stderr, "%s: stream broke at %llu\n", name,
                             static_cast<unsigned long long>(got + inBurst));
                return row;
            }
            inBurst += r.payload.size();
        }
        got += want;
    }
    row.seconds = std::chrono::duration<double>(Clock::now() - t0).count();
    row.serverCpu = (cpu_seconds(RUSAGE_SELF) - self0) - (cpu_seconds(RUSAGE_THREAD) - mine0);
    row.bytes = got;
    row.ok = true;
    app.ack_last_package();
    return row;
}

// The reference: a thread that accepts one connection and sendfile()s the whole file; the
// reader reads into a buffer and discards it.
Row sendfile_row(const std::string& path, uint64_t size) {
    Row row{"sendfile() reference"};
    int lfd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    if (lfd < 0 || bind(lfd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        listen(lfd, 1) != 0 || getsockname(lfd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
        return row;
    }
    double senderCpu = 0;
    std::thread sender([&] {
        double c0 = cpu_seconds(RUSAGE_THREAD);
        int cfd = accept(lfd, nullptr, nullptr);
        int sndbuf = korvel::SOCKET_SNDBUF;  // the server's own send buffer size
        setsockopt(cfd, SOL_SOCKET, SO_SNDBUF, &sndbuf, sizeof sndbuf);
        int ffd = open(path.c_str(), O_RDONLY);
        off_t off = 0;
        while (cfd >= 0 && ffd >= 0 && static_cast<uint64_t>(off) < size) {
            if (sendfile(cfd, ffd, &off, size - off) <= 0) {
                break;
            }
        }
        close(ffd);
        close(cfd);
        senderCpu = cpu_seconds(RUSAGE_THREAD) - c0;
    });
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    Clock::time_point t0 = Clock::now();
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) {
        std::vector<char> buf(1 << 20);
        ssize_t n;
        while ((n = read(fd, buf.data(), buf.size())) > 0) {
            row.bytes += static_cast<uint64_t>(n);
        }
    }
    row.seconds = std::chrono::duration<double>(Clock::now() - t0).count();
    sender.join();
    close(fd);
    close(lfd);
    row.serverCpu = senderCpu;
    row.ok = row.bytes == size;
    return row;
}

void print_row(const Row& row, double referenceMBs) {
    if (!row.ok) {
        std::printf("%-34s  failed\n", row.name);
        return;
    }
    double mbs = row.bytes / 1e6 / row.seconds;
    double gib = row.bytes / 1073741824.0;
    std::printf("%-34s %10.1f %16.3f %10.2fx\n", row.name, mbs, row.serverCpu / gib,
                referenceMBs > 0 ? mbs / referenceMBs : 0.0);
}

}  // namespace

int main(int argc, char** argv) {
    uint64_t mib = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 1024;
    if (mib == 0 || mib > 4095) {
        std::fprintf(stderr, "usage: %s [MiB, 1..4095]\n", argv[0]);
        return 2;
    }
    const uint64_t size = mib << 20;
    signal(SIGPIPE, SIG_IGN);
    char tmpl[] = "/tmp/korvel-bench-download-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) {
        return 1;
    }
    std::string root = tmpl, card = root + "/card", dir = card + "/DCIM/100MEDIA";
    std::string file = dir + "/BIG.MP4";
    std::string mk = "mkdir -p '" + dir + "'";
    if (std::system(mk.c_str()) != 0 || !write_test_file(file, size)) {
        std::fprintf(stderr, "cannot write %s\n", file.c_str());
        return 1;
    }
    korvel::testing_seam::set_sd_root(card.c_str());
    std::unique_ptr<korvel::CDownload> srv(new korvel::CDownload(0));
    srv->korvel_download_init();
    std::atomic<bool> stop{false};
    std::thread loop([&] {
        while (!stop) {
            srv->loop_pass(20);
        }
    });

    Row reference = sendfile_row(file, size);  // also warms the page cache for all rows
    reference = sendfile_row(file, size);
    Row big =
        korvel_row("server, 65535 B x 3200 packets", srv->bound_port(), 11, 65535, 3200, size);
    Row small =
        korvel_row("server, 4096 B x 3200 packets", srv->bound_port(), 12, 4096, 3200, size);

    double refMBs = reference.ok ? reference.bytes / 1e6 / reference.seconds : 0;
    std::printf("file %llu MiB over loopback, length-0 chunk requests\n",
                static_cast<unsigned long long>(mib));
    std::printf("%-34s %10s %16s %11s\n", "sender", "MB/s", "CPU s per GiB", "vs sendfile");
    print_row(reference, refMBs);
    print_row(big, refMBs);
    print_row(small, refMBs);

    stop = true;
    loop.join();
    srv.reset();
    unlink(file.c_str());
    std::string rm = "rm -rf '" + root + "'";
    return std::system(rm.c_str()) == 0 && big.ok && small.ok && reference.ok ? 0 : 1;
}

// Process entry: the server on port 9800 over the card at "/tmp/SD0", for ever.
#include <malloc.h>

#include <csignal>
#include <cstdio>

#include "server/server.h"

int main() {
    // Trace lines must reach a console, pipe or collector as they are written.
    setvbuf(stdout, nullptr, _IOLBF, 0);
    // glibc gives every thread that allocates a pool of its own, up to eight per core, and
    // keeps each one's free memory; two pools serve a camera's few cores without holding
    // megabytes after a burst of apps has gone.
    mallopt(M_ARENA_MAX, 2);
    korvel::CDownload server;
    // A write to a closed connection must fail with EPIPE, not kill the camera's server.
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    sigemptyset(&ignore.sa_mask);
    ignore.sa_flags = 0;
    sigaction(SIGPIPE, &ignore, nullptr);
    server.korvel_download_init();
    server.korvel_download_loop();
}

// The server object: listening socket, the connection and event-base tables, and the
// receive loop, all on the main thread; and the reaper, which destroys event bases and
// closes descriptors on a thread of its own so that the loop never waits for a worker.
#pragma once

#include <netinet/in.h>
#include <poll.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "core/io.h"
#include "core/packet.h"

namespace korvel {

class CEventBase;
struct Fence;
using Clock = std::chrono::steady_clock;

// What the server knows of one accepted connection. "Unbound" is its own state, so an app
// whose peerID is 0xFFFFFFFF is served and released like any other.
struct Connection {
    bool bound = false;
    uint32_t peerID = 0;
    PacketAssembler assembler;
    Clock::time_point packetStart{};  // when the packet now being assembled began
    // Raised when the last event base retired while bound here is gone; what is queued
    // for this connection waits for it, so an old and a new worker never write at once.
    std::shared_ptr<Fence> fence;
};

// Destroys retired event bases and then closes retired descriptors, in the order handed
// over: a descriptor is closed (and its number free for reuse) only after every event base
// that might still write to it has ended. Falls back to doing it in place without a thread.
class CReaper {
public:
    CReaper();
    ~CReaper();
    CReaper(const CReaper&) = delete;
    CReaper& operator=(const CReaper&) = delete;

    void start();
    // ev may be null, fd may be -1; fence (if any) is raised once both are done.
    void retire(std::unique_ptr<CEventBase> ev, int fd, std::shared_ptr<Fence> fence, bool trim);
    size_t pending_event_bases() const { return pendingBases; }
    int wake_fd() const { return wakeFd; }  // readable after a descriptor was closed

private:
    struct Item {
        std::unique_ptr<CEventBase> ev;
        int fd = -1;
        std::shared_ptr<Fence> fence;
        bool trim = false;
    };
    void run();
    void finish(Item& item);

    std::mutex m;
    std::condition_variable cv;
    std::deque<Item> items;  // m
    bool stopping = false;   // m
    std::atomic<size_t> pendingBases{0};
    int wakeFd = -1;
    std::unique_ptr<std::thread> worker;
};

class CDownload {
public:
    CDownload();
    ~CDownload();
    CDownload(const CDownload&) = delete;
    CDownload& operator=(const CDownload&) = delete;

    void korvel_download_init();
    int32_t make_socket_nonblocking(int fd);
    [[noreturn]] int32_t korvel_download_loop();
    void bind_sockfd_peer(int fd, uint32_t peerID);
    CEventBase* get_handler(uint32_t peerID);
    void release_handler(uint32_t peerID);

    // One pass of the loop: wait (at most timeoutMs) and serve what is ready.
    void loop_pass(int timeoutMs);

    // Tests only: listen on this port instead of 9800 (0 = any free port), and read back
    // the port actually bound.
    explicit CDownload(uint16_t portForTests);
    uint16_t bound_port() const;

private:
    bool accept_connection();  // false: nothing (more) to accept now
    void serve_connection(int fd, Connection& conn);
    void refuse_connection(int fd, Connection& conn);
    void close_connection(int fd);
    void expire_stalled(Clock::time_point now);
    int pass_timeout(int timeoutMs, Clock::time_point now) const;

    int listenFd = -1;
    int reuseAddr = 1;
    int addrLen = sizeof(sockaddr_in);
    sockaddr_in serverAddr{};
    uint16_t port = 9800;
    std::map<int, Connection> sockfdMap;
    std::map<int32_t, std::unique_ptr<CEventBase>> handlerMap;
    CPacket recvPacket;
    std::vector<pollfd> readSet;  // poll, not select: descriptors >= 1024 are served too
    Clock::time_point acceptPausedUntil{};
    CReaper reaper;  // the destructor hands it everything, then it drains and stops
};

}  // namespace korvel

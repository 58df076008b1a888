// The server object: listening socket, the connection and event-base tables, and the
// receive loop. Everything here runs on the main thread only.
#pragma once

#include <netinet/in.h>
#include <poll.h>

#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "core/io.h"
#include "core/packet.h"

namespace korvel {

class CEventBase;

// What the server knows of one accepted connection. "Unbound" is its own state, so an app
// whose peerID is 0xFFFFFFFF is served and released like any other.
struct Connection {
    bool bound = false;
    uint32_t peerID = 0;
    PacketAssembler assembler;
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
    int32_t korvel_sockfd_lookup(int fd);
    void bind_sockfd_peer(int fd, uint32_t peerID);
    CEventBase* get_handler(uint32_t peerID);
    void release_handler(uint32_t peerID);

    // One pass of the loop: wait (at most timeoutMs) and serve what is ready.
    void loop_pass(int timeoutMs);

    // Tests only: listen on this port instead of 9800 (0 = any free port), and read back
    // the port actually bound.
    explicit CDownload(uint16_t portForTests);
    uint16_t bound_port() const;
    size_t connection_count() const { return sockfdMap.size(); }
    size_t event_base_count() const { return handlerMap.size(); }

private:
    bool accept_connection();  // false: accept failed, the pass ends
    void serve_connection(int fd, Connection& conn);
    void close_connection(int fd);

    int listenFd = -1;
    int reuseAddr = 1;
    int addrLen = sizeof(sockaddr_in);
    sockaddr_in serverAddr{};
    uint16_t port = 9800;
    std::map<int, Connection> sockfdMap;
    std::map<int32_t, CEventBase*> handlerMap;  // owns the event bases
    CPacket recvPacket;
    std::vector<pollfd> readSet;  // poll, not select: descriptors >= 1024 are served too
};

}  // namespace korvel

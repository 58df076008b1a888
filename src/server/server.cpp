// The server object: listening socket, connection and event-base tables, and the receive
// loop. Main thread only, so the tables need no lock.
#include "server/server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <malloc.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <new>

#include "client/event_base.h"
#include "core/config.h"
#include "core/mapping_guard.h"
#include "delete/deleter.h"
#include "log/log.h"

namespace korvel {

namespace {
const char* const INIT_SIG = "void korvel::CDownload::korvel_download_init()";
const char* const LOOP_SIG = "int32_t korvel::CDownload::korvel_download_loop()";

void set_keepalive(int fd) {
    int on = 1;
    int idle = KEEPALIVE_IDLE_S;
    int intvl = KEEPALIVE_INTVL_S;
    int cnt = KEEPALIVE_CNT;
    setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    setsockopt(fd, IPPROTO_TCP, TCP_KEEPIDLE, &idle, sizeof idle);
    setsockopt(fd, IPPROTO_TCP, TCP_KEEPINTVL, &intvl, sizeof intvl);
    setsockopt(fd, IPPROTO_TCP, TCP_KEEPCNT, &cnt, sizeof cnt);
}
}  // namespace

CDownload::CDownload() : port(SERVER_PORT) {}

CDownload::CDownload(uint16_t portForTests) : port(portForTests) {}

// In the camera the loop never returns, so this only runs in tests; it still releases
// every connection and event base so that nothing outlives the object.
CDownload::~CDownload() {
    for (auto& entry : handlerMap) {
        delete entry.second;
    }
    handlerMap.clear();
    for (auto& entry : sockfdMap) {
        close(entry.first);
    }
    sockfdMap.clear();
    if (listenFd >= 0) {
        close(listenFd);
        listenFd = -1;
    }
}

void CDownload::korvel_download_init() {
    listenFd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    if (listenFd < 0) {
        log_fatal(1, "[ERROR],%ssocket error!\n", INIT_SIG);
    }
    if (make_socket_nonblocking(listenFd) < 0) {
        log_fatal(1, "[ERROR],%ssocket error!\n", INIT_SIG);
    }
    serverAddr.sin_family = AF_INET;
    serverAddr.sin_port = htons(port);
    serverAddr.sin_addr.s_addr = htonl(INADDR_ANY);
    if (setsockopt(listenFd, SOL_SOCKET, SO_REUSEADDR, &reuseAddr, sizeof reuseAddr) < 0) {
        log_fatal(1, "[ERROR],%ssetopt error!\n", INIT_SIG);
    }
    int rcv = SOCKET_RCVBUF;
    int snd = SOCKET_SNDBUF;
    int nodelay = 1;
    if (setsockopt(listenFd, SOL_SOCKET, SO_RCVBUF, &rcv, sizeof rcv) < 0 ||
        setsockopt(listenFd, SOL_SOCKET, SO_SNDBUF, &snd, sizeof snd) < 0 ||
        setsockopt(listenFd, IPPROTO_TCP, TCP_NODELAY, &nodelay, sizeof nodelay) < 0) {
        log_fatal(1, "[ERROR],%ssetsockopt error", INIT_SIG);
    }
    if (bind(listenFd, reinterpret_cast<sockaddr*>(&serverAddr), static_cast<socklen_t>(addrLen)) <
        0) {
        log_fatal(1, "[ERROR],%sbind error!\n", INIT_SIG);
    }
    if (listen(listenFd, LISTEN_BACKLOG) == -1) {
        log_fatal(1, "[ERROR],%slisten error", INIT_SIG);
    }
    install_mapping_guard();
    if (mdeletehanlder != nullptr) {
        return;
    }
    DWF_DELHandler* deleter = new DWF_DELHandler();
    deleter->start();
    mdeletehanlder = deleter;
    queue_leftovers(*deleter);
}

int32_t CDownload::make_socket_nonblocking(int fd) {
    const char* sig = "int32_t korvel::CDownload::make_socket_nonblocking(int)";
    int flags = fcntl(fd, F_GETFL, 0);
    if (flags < 0) {
        log_warn("[WARN],%sget socket flags error!\n", sig);
        return -1;
    }
    if (fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0) {
        log_warn("[WARN],%sset socket nonblock error!\n", sig);
        return -1;
    }
    return 0;
}

int32_t CDownload::korvel_sockfd_lookup(int fd) {
    if (sockfdMap.count(fd) != 0) {
        log_warn("[WARN],%slookup socket error, already exist socket\n",
                 "int32_t korvel::CDownload::korvel_sockfd_lookup(int)");
        return 0;
    }
    sockfdMap[fd];  // registered unbound
    return 0;
}

void CDownload::bind_sockfd_peer(int fd, uint32_t peerID) {
    Connection& conn = sockfdMap[fd];
    if (conn.bound && conn.peerID != peerID) {
        release_handler(conn.peerID);
    }
    conn.bound = true;
    conn.peerID = peerID;
}

CEventBase* CDownload::get_handler(uint32_t peerID) {
    int32_t key = static_cast<int32_t>(peerID);
    auto it = handlerMap.find(key);
    if (it != handlerMap.end()) {
        return it->second;
    }
    CEventBase* ev = new (std::nothrow) CEventBase();
    if (ev == nullptr) {
        return nullptr;
    }
    handlerMap[key] = ev;
    return ev;
}

void CDownload::release_handler(uint32_t peerID) {
    auto it = handlerMap.find(static_cast<int32_t>(peerID));
    if (it == handlerMap.end()) {
        return;
    }
    delete it->second;  // waits for the running task and joins the worker
    handlerMap.erase(it);
    if (handlerMap.empty()) {
        malloc_trim(0);  // the last app has gone: hand its catalogues' memory back
    }
}

uint16_t CDownload::bound_port() const {
    sockaddr_in addr{};
    socklen_t len = sizeof addr;
    if (listenFd < 0 || getsockname(listenFd, reinterpret_cast<sockaddr*>(&addr), &len) < 0) {
        return 0;
    }
    return ntohs(addr.sin_port);
}

int32_t CDownload::korvel_download_loop() {
    for (;;) {
        loop_pass(SELECT_TIMEOUT_S * 1000);
    }
}

// poll instead of select: a descriptor of 1024 or more is served like any other.
// One packet per readable connection per pass, in ascending descriptor order; a
// connection accepted in this pass is read in the next one.
void CDownload::loop_pass(int timeoutMs) {
    readSet.clear();
    readSet.push_back(pollfd{listenFd, POLLIN, 0});
    for (auto& entry : sockfdMap) {
        if (entry.first > 0) {
            readSet.push_back(pollfd{entry.first, POLLIN, 0});
        }
    }
    int n = poll(readSet.data(), readSet.size(), timeoutMs);
    if (n == -1) {
        perror("select error");
        return;
    }
    if (n == 0) {
        return;
    }
    if (readSet[0].revents & POLLIN) {
        if (!accept_connection()) {
            return;
        }
    }
    log_print(1, "debug: the connection client %ld \n", static_cast<long>(sockfdMap.size()));
    for (size_t i = 1; i < readSet.size(); ++i) {
        if (readSet[i].revents == 0) {
            continue;
        }
        auto it = sockfdMap.find(readSet[i].fd);
        if (it != sockfdMap.end()) {
            serve_connection(it->first, it->second);
        }
    }
}

bool CDownload::accept_connection() {
    sockaddr_in peer{};
    socklen_t len = sizeof peer;
    int fd = accept4(listenFd, reinterpret_cast<sockaddr*>(&peer), &len, SOCK_NONBLOCK);
    if (fd == -1) {
        perror("accept error\n");
        return false;
    }
    korvel_sockfd_lookup(fd);
    set_keepalive(fd);
    return true;
}

void CDownload::serve_connection(int fd, Connection& conn) {
    int32_t r = conn.assembler.feed(fd, recvPacket);
    if (r == PacketAssembler::INCOMPLETE) {
        return;
    }
    if (r <= 0) {
        if (conn.bound) {
            release_handler(conn.peerID);
        }
        close_connection(fd);
        return;
    }
    uint32_t peerID = recvPacket.getPeerID();
    CEventBase* ev = get_handler(peerID);
    if (ev == nullptr) {
        log_warn("[WARN],%sempty peerID handler %d", LOOP_SIG, static_cast<int>(peerID));
        return;
    }
    bind_sockfd_peer(fd, peerID);
    log_print(1,
              "receive data from app: peerID = %u,\n seqNO = %u, reqType = %u, \n msgType = %u\n",
              peerID, recvPacket.getSeqNO(), recvPacket.getReqType(), recvPacket.getMsgType());
    if (ev->check_seq_no(recvPacket) < 0) {
        return;
    }
    if (ev->check_crc(fd, recvPacket) < 0) {
        log_warn("[WARN],%sdata checksum error!\n", LOOP_SIG);
        return;
    }
    if (ev->event_base_process(fd, recvPacket) < 0) {
        return;
    }
    if (ev->quit_received() != 0) {
        release_handler(peerID);
        conn.bound = false;
    }
}

void CDownload::close_connection(int fd) {
    shutdown(fd, SHUT_RDWR);
    close(fd);
    sockfdMap.erase(fd);
}

}  // namespace korvel

// The server object: listening socket, connection and event-base tables, and the receive
// loop. Main thread only, so the tables need no lock; the reaper's queue has its own.
// Nothing here waits for an app: replies are queued for workers, event bases are destroyed
// and descriptors closed by the reaper, and every table is capped.
#include "server/server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <malloc.h>
#include <sys/eventfd.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <exception>
#include <new>
#include <system_error>
#include <utility>

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

bool out_of_resources(int err) {
    return err == EMFILE || err == ENFILE || err == ENOBUFS || err == ENOMEM;
}
}  // namespace

CReaper::CReaper() = default;

CReaper::~CReaper() {
    if (worker) {
        {
            std::lock_guard<std::mutex> lock(m);
            stopping = true;
        }
        cv.notify_all();
        worker->join();
    }
    for (Item& item : items) {
        finish(item);
    }
    if (wakeFd >= 0) {
        close(wakeFd);
    }
}

void CReaper::start() {
    if (worker) {
        return;
    }
    wakeFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    try {
        worker.reset(new std::thread([this] { run(); }));
    } catch (const std::system_error&) {
        worker.reset();  // then retire() does the work in place
    } catch (const std::bad_alloc&) {
        worker.reset();
    }
}

void CReaper::retire(std::unique_ptr<CEventBase> ev, int fd, std::shared_ptr<Fence> fence,
                     bool trim) {
    Item item;
    item.ev = std::move(ev);
    item.fd = fd;
    item.fence = std::move(fence);
    item.trim = trim;
    if (item.ev) {
        ++pendingBases;
    }
    if (worker) {
        try {
            std::lock_guard<std::mutex> lock(m);
            items.push_back(std::move(item));
            cv.notify_one();
            return;
        } catch (const std::bad_alloc&) {
            // no room to queue it: done in place below
        }
    }
    finish(item);
}

void CReaper::run() {
    std::unique_lock<std::mutex> lock(m);
    for (;;) {
        cv.wait(lock, [this] { return stopping || !items.empty(); });
        if (items.empty()) {
            return;
        }
        Item item = std::move(items.front());
        items.pop_front();
        lock.unlock();
        finish(item);
        lock.lock();
    }
}

void CReaper::finish(Item& item) {
    if (item.ev) {
        item.ev.reset();  // stops the worker after its running task
        --pendingBases;
    }
    if (item.fd >= 0) {
        close(item.fd);
        uint64_t one = 1;
        if (wakeFd >= 0 && write(wakeFd, &one, sizeof one) < 0) {
            // the counter is only a wake-up; a full one wakes the loop all the same
        }
    }
    if (item.fence) {
        item.fence->raise();
    }
    if (item.trim) {
        malloc_trim(0);  // the last app has gone: hand its catalogues' memory back
    }
}

CDownload::CDownload() : port(SERVER_PORT) {}

CDownload::CDownload(uint16_t portForTests) : port(portForTests) {}

// In the camera the loop never returns, so this only runs in tests; it still releases
// every connection and event base so that nothing outlives the object.
CDownload::~CDownload() {
    for (auto& entry : handlerMap) {
        reaper.retire(std::move(entry.second), -1, nullptr, false);
    }
    handlerMap.clear();
    for (auto& entry : sockfdMap) {
        shutdown(entry.first, SHUT_RDWR);
        reaper.retire(nullptr, entry.first, nullptr, false);
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
    reaper.start();
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

void CDownload::bind_sockfd_peer(int fd, uint32_t peerID) {
    Connection& conn = sockfdMap[fd];
    if (conn.bound && conn.peerID != peerID) {
        release_handler(conn.peerID);
    }
    conn.bound = true;
    conn.peerID = peerID;
}

// A new app is refused (null) beyond MAX_EVENT_BASES live ones or MAX_RETIRING_EVENT_BASES
// still being destroyed (each holds a thread until then), and when its event base or its
// worker thread cannot be made.
CEventBase* CDownload::get_handler(uint32_t peerID) {
    int32_t key = static_cast<int32_t>(peerID);
    auto it = handlerMap.find(key);
    if (it != handlerMap.end()) {
        return it->second.get();
    }
    if (handlerMap.size() >= MAX_EVENT_BASES ||
        reaper.pending_event_bases() >= MAX_RETIRING_EVENT_BASES) {
        return nullptr;
    }
    std::unique_ptr<CEventBase> ev(new (std::nothrow) CEventBase());
    if (!ev || !ev->worker_started()) {
        return nullptr;  // without a worker there is nothing to join: freed in place
    }
    CEventBase* raw = ev.get();
    handlerMap[key] = std::move(ev);
    return raw;
}

// The event base goes to the reaper; every connection bound to it gets a fence that the
// next event base's work on that connection waits for.
void CDownload::release_handler(uint32_t peerID) {
    auto it = handlerMap.find(static_cast<int32_t>(peerID));
    if (it == handlerMap.end()) {
        return;
    }
    std::shared_ptr<Fence> fence = std::make_shared<Fence>();
    for (auto& entry : sockfdMap) {
        if (entry.second.bound && entry.second.peerID == peerID) {
            entry.second.fence = fence;
        }
    }
    std::unique_ptr<CEventBase> ev = std::move(it->second);
    handlerMap.erase(it);
    // Every retired worker winds down at once; the reaper only joins them, in order.
    ev->quitRequested = 1;
    ev->request_stop();
    reaper.retire(std::move(ev), -1, fence, handlerMap.empty());
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
        loop_pass(LOOP_PASS_MS);
    }
}

// The wait of one pass: no longer than the accept pause or the first stalled packet's
// deadline, so both are acted on in time.
int CDownload::pass_timeout(int timeoutMs, Clock::time_point now) const {
    Clock::time_point until = now + std::chrono::milliseconds(timeoutMs);
    if (acceptPausedUntil > now && acceptPausedUntil < until) {
        until = acceptPausedUntil;
    }
    for (auto& entry : sockfdMap) {
        if (!entry.second.assembler.idle()) {
            Clock::time_point deadline =
                entry.second.packetStart + std::chrono::milliseconds(PACKET_IDLE_TIMEOUT_MS);
            if (deadline < until) {
                until = deadline;
            }
        }
    }
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(until - now).count();
    return ms < 0 ? 0 : static_cast<int>(ms) + 1;
}

// poll instead of select: a descriptor of 1024 or more is served like any other.
// One packet per readable connection per pass, in ascending descriptor order; a
// connection accepted in this pass is read in the next one. Slot 0 is the listening
// socket (left out, as -1, while accepting is paused), slot 1 the reaper's wake-up.
void CDownload::loop_pass(int timeoutMs) {
    Handler::mark_loop_thread();
    Clock::time_point now = Clock::now();
    readSet.clear();
    readSet.push_back(pollfd{now >= acceptPausedUntil ? listenFd : -1, POLLIN, 0});
    readSet.push_back(pollfd{reaper.wake_fd(), POLLIN, 0});
    for (auto& entry : sockfdMap) {
        if (entry.first > 0) {
            readSet.push_back(pollfd{entry.first, POLLIN, 0});
        }
    }
    int n = poll(readSet.data(), readSet.size(), pass_timeout(timeoutMs, now));
    if (n == -1) {
        perror("select error");
        return;
    }
    if (readSet[1].revents & POLLIN) {
        uint64_t count = 0;
        if (read(reaper.wake_fd(), &count, sizeof count) > 0) {
            acceptPausedUntil = Clock::time_point{};  // descriptors were freed
        }
    }
    expire_stalled(Clock::now());
    if (n == 0) {
        return;
    }
    // Several per pass, so that a burst of connections does not overflow the backlog.
    for (int i = 0; i < ACCEPTS_PER_PASS && (readSet[0].revents & POLLIN); ++i) {
        if (!accept_connection()) {
            break;
        }
    }
    log_print(1, "debug: the connection client %ld \n", static_cast<long>(sockfdMap.size()));
    for (size_t i = 2; i < readSet.size(); ++i) {
        if (readSet[i].revents == 0) {
            continue;
        }
        auto it = sockfdMap.find(readSet[i].fd);
        if (it == sockfdMap.end()) {
            continue;
        }
        try {
            serve_connection(it->first, it->second);
        } catch (const std::exception&) {
            // Out of memory (or a thread resource) while serving this app: it is refused,
            // everyone else goes on.
            log_warn("[WARN],%sout of resources\n", LOOP_SIG);
            auto again = sockfdMap.find(readSet[i].fd);
            if (again != sockfdMap.end()) {
                refuse_connection(again->first, again->second);
            }
        }
    }
}

// On EMFILE, ENFILE, ENOBUFS or ENOMEM the listening socket stays readable; it is left out
// of the poll set for ACCEPT_PAUSE_MS (or until the reaper frees a descriptor) instead of
// being retried in a spin. Beyond MAX_CONNECTIONS a new connection is accepted and closed.
bool CDownload::accept_connection() {
    sockaddr_in peer{};
    socklen_t len = sizeof peer;
    int fd = accept4(listenFd, reinterpret_cast<sockaddr*>(&peer), &len, SOCK_NONBLOCK);
    if (fd == -1) {
        int err = errno;
        if (err == EAGAIN || err == EWOULDBLOCK) {
            return false;  // the backlog is empty
        }
        perror("accept error\n");
        if (out_of_resources(err)) {
            acceptPausedUntil = Clock::now() + std::chrono::milliseconds(ACCEPT_PAUSE_MS);
        }
        return false;
    }
    if (sockfdMap.size() >= MAX_CONNECTIONS) {
        log_warn("[WARN],%stoo many connections, %d refused\n", LOOP_SIG, fd);
        close(fd);
        return true;
    }
    sockfdMap[fd];  // registered unbound
    set_keepalive(fd);
    return true;
}

// A connection that began a packet PACKET_IDLE_TIMEOUT_MS ago and has not finished it
// is closed: it holds up to 64 KiB of parked bytes.
void CDownload::expire_stalled(Clock::time_point now) {
    std::vector<int> stalled;
    for (auto& entry : sockfdMap) {
        if (!entry.second.assembler.idle() &&
            now - entry.second.packetStart >= std::chrono::milliseconds(PACKET_IDLE_TIMEOUT_MS)) {
            stalled.push_back(entry.first);
        }
    }
    for (int fd : stalled) {
        log_warn("[WARN],%sconnection %d stalled in a packet, closed\n", LOOP_SIG, fd);
        Connection& conn = sockfdMap[fd];
        if (conn.bound) {
            release_handler(conn.peerID);
        }
        close_connection(fd);
    }
}

void CDownload::serve_connection(int fd, Connection& conn) {
    bool wasIdle = conn.assembler.idle();
    int32_t r = conn.assembler.feed(fd, recvPacket);
    if (r == PacketAssembler::INCOMPLETE) {
        if (wasIdle) {
            conn.packetStart = Clock::now();
        }
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
        refuse_connection(fd, conn);
        return;
    }
    bind_sockfd_peer(fd, peerID);
    if (conn.fence && conn.fence->done) {
        conn.fence.reset();
    }
    ev->set_dispatch_fence(conn.fence);
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

void CDownload::refuse_connection(int fd, Connection& conn) {
    if (conn.bound) {
        release_handler(conn.peerID);
    }
    close_connection(fd);
}

// Shut down now, so a worker stalled writing to it gives up at once; closed by the reaper
// after every event base that might still write to it, so the number is not reused early.
void CDownload::close_connection(int fd) {
    shutdown(fd, SHUT_RDWR);
    sockfdMap.erase(fd);
    reaper.retire(nullptr, fd, nullptr, false);
}

}  // namespace korvel

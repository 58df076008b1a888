// The real server loop on a background thread, on a free port, over a test card.
#include "support/test_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>

#include "core/byte_order.h"
#include "core/config.h"
#include "core/packet.h"
#include "server/server.h"

namespace korvel {
namespace testsupport {

namespace {
// Short passes so that destruction does not wait for a long poll to time out.
constexpr int TEST_PASS_MS = 20;
}  // namespace

TestServer::TestServer(const std::string& sdRoot, const std::string& capPath) {
    signal(SIGPIPE, SIG_IGN);
    testing_seam::set_sd_root(sdRoot.c_str());
    if (!capPath.empty()) {
        testing_seam::set_capability_path(capPath.c_str());
    }
    srv.reset(new CDownload(0));
    srv->korvel_download_init();
    boundPort = srv->bound_port();
    loop = std::thread([this] {
        while (!stop) {
            srv->loop_pass(TEST_PASS_MS);
        }
    });
}

TestServer::~TestServer() {
    stop = true;
    loop.join();
    srv.reset();
}

bool connect_app(app::Client& c, uint16_t port, uint32_t peer, int window) {
    c.peerID = peer;
    if (window == 0) {
        return c.connect_to("127.0.0.1", port) == app::CLIENT_OK;
    }
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &window, sizeof window);
    sockaddr_in sa{AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
    if (fd < 0 || ::connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0) {
        close(fd);
        return false;
    }
    c.adopt_fd(fd);
    return true;
}

bool configure_app(app::Client& c, uint16_t packsize, uint16_t blocks, int ms) {
    app::Reply r;
    return c.configure(packsize, blocks) == app::CLIENT_OK &&
           c.read_reply_of(MSG_CONFIG, r, ms) == app::CLIENT_OK && r.ackCode == ACK_DONE;
}

uint32_t download_answer(app::Client& c, const std::string& name, int ms) {
    app::Reply r;
    if (c.request_download(name) != app::CLIENT_OK ||
        c.read_reply_of(MSG_DOWNLOAD, r, ms) != app::CLIENT_OK) {
        return 0;
    }
    return r.reqType == REQ_DATA && r.payload.size() == 4 ? load_le32(r.payload.data()) : r.ackCode;
}

std::string ServedCard::add(const std::string& name, const std::string& bytes) {
    make_dirs(media);
    write_file(media + "/" + name, bytes);
    return media + "/" + name;
}

AppRun ServedCard::app(std::vector<std::string> args) {
    args.insert(args.begin(), {"--peer", std::to_string(peer++)});
    return run_app(server->port(), args);
}

void ServedCard::expect_served(int minEntries, const std::string& name, const std::string& bytes) {
    EXPECT_EQ(clean_session(server->port(), peer, minEntries, tmp.path(), name, bytes), "");
    peer += 2;
}

}  // namespace testsupport
}  // namespace korvel

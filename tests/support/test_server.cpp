// The real server loop on a background thread, on a free port, over a test card.
#include "support/test_server.h"

#include <csignal>

#include "core/config.h"
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

}  // namespace testsupport
}  // namespace korvel

// An in-process server on a free port, with the memory card moved to a test directory,
// its loop running on a background thread until the object is destroyed.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "app/client.h"
#include "support/soak_client.h"
#include "support/temp_dir.h"

namespace korvel {
class CDownload;
namespace testsupport {

class TestServer {
public:
    // sdRoot replaces "/tmp/SD0"; capPath (optional) replaces the capability file path.
    explicit TestServer(const std::string& sdRoot, const std::string& capPath = "");
    ~TestServer();
    TestServer(const TestServer&) = delete;
    TestServer& operator=(const TestServer&) = delete;

    uint16_t port() const { return boundPort; }
    CDownload& server() { return *srv; }

private:
    std::unique_ptr<CDownload> srv;
    std::thread loop;
    std::atomic<bool> stop{false};
    uint16_t boundPort = 0;
};

// Connects `c` to the server on `port` as `peer`. With `window`, the receive buffer is fixed
// before connecting, so the kernel does not grow it: what the server can queue stays small.
bool connect_app(app::Client& c, uint16_t port, uint32_t peer, int window = 0);
// Configures the session; true once it is acknowledged done.
bool configure_app(app::Client& c, uint16_t packsize, uint16_t blocks, int ms = 5000);
// Asks for a download: the announced size, or the code it is refused with (0: no answer).
uint32_t download_answer(app::Client& c, const std::string& name, int ms = 5000);

// A card in a temporary directory and the server over it, started once a test has put its
// files in place.
class ServedCard : public testing::Test {
protected:
    TempDir tmp;
    std::string root = tmp.file("SD0"), dcim = root + "/DCIM", media = dcim + "/100MEDIA";
    std::unique_ptr<TestServer> server;
    uint32_t peer = 0x51000001;  // a fresh one for every session

    void SetUp() override { make_dirs(media); }
    void TearDown() override { server.reset(); }
    void start() { server.reset(new TestServer(root, tmp.file("cap.xml"))); }
    // Writes `name` into 100MEDIA; its path.
    std::string add(const std::string& name, const std::string& bytes);
    // korvel-app ARGS against the server, as a fresh peer.
    AppRun app(std::vector<std::string> args);
    // A fresh app gets a catalogue of at least `minEntries` and, when `name` is given, a
    // download of it equal to `bytes`.
    void expect_served(int minEntries = 0, const std::string& name = "",
                       const std::string& bytes = "");
};

}  // namespace testsupport
}  // namespace korvel

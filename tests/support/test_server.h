// An in-process server on a free port, with the memory card moved to a test directory,
// its loop running on a background thread until the object is destroyed.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>

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

}  // namespace testsupport
}  // namespace korvel

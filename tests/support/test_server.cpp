// Placeholder until the server lands; the core work replaces it.
#include "support/test_server.h"

#include "core/server.h"

namespace korvel {
namespace testsupport {
TestServer::TestServer(const std::string&, const std::string&) {}
TestServer::~TestServer() {}
}  // namespace testsupport
}  // namespace korvel

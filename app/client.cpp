// Placeholder until the client library lands.
#include "app/client.h"

namespace korvel {
namespace app {
Client::~Client() {}
}  // namespace app
}  // namespace korvel

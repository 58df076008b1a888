// App sessions for load and fault tests: whole downloads, catalogues and metadata replies
// fetched over one connection, each step bounded in time, each result checked for framing
// (CRC, message type, offsets) so that a caller only has to compare the bytes.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <random>
#include <string>

#include "app/client.h"

namespace korvel {
namespace testsupport {

enum class Outcome {
    Done,     // every byte arrived
    Refused,  // the server answered with a status code (code holds it)
    Broken,   // the connection failed, timed out or a reply was malformed (why holds it)
};

struct Fetched {
    Outcome outcome = Outcome::Broken;
    uint32_t code = 0;  // ackCode of a refusal
    std::string bytes;
    std::string why;  // what went wrong, for messages
};

// How one session asks for data.
struct SessionParams {
    uint16_t packsize = 4096;
    uint16_t blocks = 1;
    int timeoutMs = 10000;  // per reply
};

// Picks a packet size in [512, 65535] and a block count that keeps a file of `size` bytes
// within about 64 requests.
SessionParams random_params(std::mt19937& rng, uint32_t size, int timeoutMs);

// Configuration (default location): the status code of the reply, or a negative client
// result.
int configure_session(app::Client& c, const SessionParams& p);

// Size reply of a download request: the size, or the refusal's code in `f`.
bool request_size(app::Client& c, const std::string& name, const SessionParams& p, Fetched& f,
                  uint32_t& size);

// A whole download in the current session (configure first): the size request, then chunk
// requests of random forms (data or control, explicit or zero length, message types 3 to 6;
// only 3 for a thumbnail substitute), reassembled by offset.
Fetched download(app::Client& c, const std::string& name, const SessionParams& p, std::mt19937& rng,
                 bool thumbnail);

// One burst of a document reply (catalogue 0, metadata 19) appended to `text`, each
// packet's offset checked against it; `last` when the document's last packet came. False
// with `f` holding the refusal or the breakage.
bool read_document_burst(app::Client& c, uint32_t msgType, const SessionParams& p,
                         std::string& text, bool& last, Fetched& f);

// The catalogue of `type`, page by page (configure first).
Fetched fetch_catalogue(app::Client& c, uint16_t type, const SessionParams& p,
                        int maxRequests = 10000);

// The metadata reply of one name (configure first); Done only when the last packet came.
Fetched fetch_metadata(app::Client& c, const std::string& name, const SessionParams& p);

// Ends the session: a quit (answered) or a last-package notice (not answered).
bool end_session(app::Client& c, bool quit, int timeoutMs);

// A well-behaved app after a storm or a fault: a catalogue of at least `minEntries` and,
// when `name` is given, a download equal to `bytes`. Empty when all went well, else what
// went wrong.
std::string clean_session(uint16_t port, uint32_t peer, int minEntries,
                          const std::string& name = "", const std::string& bytes = "");

// Process figures from /proc/self.
int open_fd_count();
// Heap bytes in use across every malloc arena (KiB), after giving free pages back. Unlike
// VmRSS it does not move with what the allocator keeps cached for the test's own threads.
long heap_in_use_kib();

// Number of entries in a catalogue text's "media" array; -1 when it is not a JSON
// object with such an array.
int catalogue_entries(const std::string& text);

}  // namespace testsupport
}  // namespace korvel

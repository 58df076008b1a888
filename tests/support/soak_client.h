// Apps for the load, fault and tool tests: korvel-app's own commands run in this process
// against a test server, so downloads, catalogue paging and metadata are the app library's.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace korvel {
namespace testsupport {

struct AppRun {
    int rc = -1;  // the tool's exit code
    std::string out, err;
};

// korvel-app ARGS with "--port PORT" in front (none when port is 0).
AppRun run_app(uint16_t port, std::vector<std::string> args);

// A well-behaved app after a storm or a fault: a catalogue of at least `minEntries` and,
// when `name` is given, a download into `dir` equal to `bytes`. Empty when all went well.
std::string clean_session(uint16_t port, uint32_t peer, int minEntries, const std::string& dir,
                          const std::string& name = "", const std::string& bytes = "");

// Entries of a catalogue text's "media" array; -1 when it is not such an object.
int catalogue_entries(const std::string& text);

int open_fd_count();
// Heap in use across every malloc arena (KiB), after giving free pages back. Unlike VmRSS it
// does not move with what the allocator keeps cached for the test's own threads.
long heap_in_use_kib();
// Waits (bounded) until at most `bound` descriptors are open; the count then.
int fds_settle_to(int bound);

}  // namespace testsupport
}  // namespace korvel

// Helpers shared by the transfer handlers; not part of the subsystem's interface.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "core/byte_order.h"
#include "core/mutex.h"

namespace korvel {

// How long a request made off the server loop (a test, a tool) waits for a running chunk
// stream of the same app to finish with the region. On the loop there is no wait: apps do
// not overlap the two, and one that does gets 0xFB06 at once instead of holding the loop.
constexpr std::chrono::seconds REGION_WAIT{2};

// Takes the region lock: at once or not at all on the loop thread, within REGION_WAIT on
// others; true when it is now held by the caller. Polled with try_lock rather than a timed
// mutex: the thread checkers do not see the clock-based lock, and this path is rare.
bool lock_region(Mutex& regionMutex) TRY_ACQUIRE(true, regionMutex);

bool region_still_backed(int fileFd, uint32_t mapoff, uint32_t mapsize);

class CEventBase;
class CPacket;

// Copies a request's name (at most 1023 bytes; a NUL inside ends it) into fileName;
// false, logged, when the payload is too long.
bool take_request_name(CPacket& packet, char* fileName);

// Resolves a request name and keeps it on the card; a refusal is logged here.
bool resolve_confined(CEventBase& eb, const char* name, std::string& filename,
                      std::string& absfiledir);

// The size reply's payload: the size as it lies in memory on the camera, little-endian.
inline void size_le(uint32_t size, uint8_t out[4]) {
    store_le32(out, size);
}

}  // namespace korvel

// Reading a file mapping whose pages are gone (the file shrank, the card was pulled out)
// raises SIGBUS, which would end the whole server for one app's stream. Reads of mapped
// payloads go through here instead, so a lost page is a failed read.
#pragma once

#include <cstddef>
#include <cstdint>

namespace korvel {

// Installs the process-wide SIGBUS handler; idempotent. A SIGBUS outside a guarded read
// is handed back to the handler that was there before (the default one ends the process).
void install_mapping_guard();

// crc32_calc(seed, data, len) that returns false instead of faulting when the bytes cannot
// be read. Without install_mapping_guard() it is a plain crc32_calc.
bool crc32_guarded(uint32_t seed, const void* data, uint32_t len, uint32_t& crc);

}  // namespace korvel

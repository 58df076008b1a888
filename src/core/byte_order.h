// Loads and stores of fixed-order integers at any byte address: the header words, the
// ackWord, the trailer and the configuration words are big-endian; the chunk length and
// the size reply are little-endian.
#pragma once

#include <cstdint>

namespace korvel {

inline uint32_t load_be32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 |
           static_cast<uint32_t>(p[2]) << 8 | p[3];
}

inline uint32_t load_le32(const uint8_t* p) {
    return static_cast<uint32_t>(p[3]) << 24 | static_cast<uint32_t>(p[2]) << 16 |
           static_cast<uint32_t>(p[1]) << 8 | p[0];
}

inline uint16_t load_be16(const uint8_t* p) {
    return static_cast<uint16_t>(p[0] << 8 | p[1]);
}

inline uint16_t load_le16(const uint8_t* p) {
    return static_cast<uint16_t>(p[1] << 8 | p[0]);
}

inline void store_be32(uint8_t* p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v >> 24);
    p[1] = static_cast<uint8_t>(v >> 16);
    p[2] = static_cast<uint8_t>(v >> 8);
    p[3] = static_cast<uint8_t>(v);
}

inline void store_le32(uint8_t* p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v);
    p[1] = static_cast<uint8_t>(v >> 8);
    p[2] = static_cast<uint8_t>(v >> 16);
    p[3] = static_cast<uint8_t>(v >> 24);
}

}  // namespace korvel

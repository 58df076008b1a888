// Texts live in fixed char arrays; this is the one way to fill them from a longer text.
#pragma once

#include <cstddef>
#include <cstring>

namespace korvel {

// Copies at most size-1 bytes of src and always terminates (nothing when size is 0).
// The regions may overlap.
inline void copy_truncated(char* dst, size_t size, const char* src) {
    if (size == 0) {
        return;
    }
    size_t n = strnlen(src, size - 1);
    memmove(dst, src, n);
    dst[n] = '\0';
}

}  // namespace korvel

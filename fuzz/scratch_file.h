// A scratch file for fuzz targets whose readers take a path, written afresh for each input.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

// The input in a file named for the target and process; the caller removes it after each
// input, since libFuzzer may end without running destructors.
inline std::string scratch_file(const char* stem, const uint8_t* data, size_t size) {
    static const std::string path = std::string("/tmp/") + stem + "_" + std::to_string(getpid());
    FILE* f = fopen(path.c_str(), "wb");
    if (f == nullptr || (size > 0 && fwrite(data, 1, size, f) != size)) {
        abort();
    }
    fclose(f);
    return path;
}

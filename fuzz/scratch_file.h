// A scratch file for fuzz targets whose readers take a path: one name per process, the
// input written afresh for each run.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

struct ScratchFile {
    std::string path;
    explicit ScratchFile(const char* stem) {
        const char* dir = getenv("TMPDIR");
        path = std::string(dir && *dir ? dir : "/tmp") + "/" + stem + "_XXXXXX";
        int fd = mkstemp(&path[0]);
        if (fd < 0) {
            abort();
        }
        close(fd);
    }
    void write(const uint8_t* data, size_t size) const {
        FILE* f = fopen(path.c_str(), "wb");
        if (f == nullptr || (size > 0 && fwrite(data, 1, size, f) != size)) {
            abort();
        }
        fclose(f);
    }
};

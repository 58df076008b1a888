// Arbitrary bytes as a photo: both readers and the segment walk must stay inside the input
// and leave every text field terminated; a thumbnail is copied only when it fits.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "media/exif.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    int fd = memfd_create("photo", 0);
    if (write(fd, data, size) != ssize_t(size)) {
        abort();
    }
    // The record's field sizes, each its own heap block so a write past one is caught.
    std::vector<char> f[6] = {std::vector<char>(32), std::vector<char>(32), std::vector<char>(16),
                              std::vector<char>(16), std::vector<char>(16), std::vector<char>(16)};
    korvel::exif_read_photo_info_fd(f[0].data(), f[1].data(), f[2].data(), f[3].data(), f[4].data(),
                                    f[5].data(), fd);
    // The input is a heap block of its own exact size (replay_main.cpp makes it so too).
    korvel::exif_parse_app1(data, uint32_t(size), f[0].data(), f[1].data(), f[2].data(),
                            f[3].data(), f[4].data(), f[5].data());
    for (const auto& field : f) {
        if (memchr(field.data(), 0, field.size()) == nullptr) {
            abort();
        }
    }
    // A small capacity picked by the last byte, and the server's own.
    for (uint32_t capacity : {size > 0 ? data[size - 1] * 4u : 0u, 122880u}) {
        std::vector<uint8_t> buf(capacity + 1);
        uint32_t got = 0;
        if (korvel::exif_read_thumbnail_fd(fd, buf.data(), capacity, &got) == 0 &&
            (got == 0 || got > capacity)) {
            abort();
        }
    }
    close(fd);
    return 0;
}

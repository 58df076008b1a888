// Arbitrary bytes as a photo: both readers and the segment walk must stay inside the input,
// leave every text field terminated within its width, and copy a thumbnail only when it
// fits the capacity. The last input byte picks a small capacity for a second thumbnail read.
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "media/exif.h"
#include "scratch_file.h"

namespace {

// Six record fields in exactly-sized heap blocks, so a write past a field is caught.
struct Fields {
    std::vector<char> f[6] = {std::vector<char>(32, 0), std::vector<char>(32, 0),
                              std::vector<char>(16, 0), std::vector<char>(16, 0),
                              std::vector<char>(16, 0), std::vector<char>(16, 0)};
    void check() const {
        for (const auto& field : f) {
            if (memchr(field.data(), 0, field.size()) == nullptr) {
                abort();
            }
        }
    }
};

void read_thumbnail(const std::string& path, uint32_t capacity) {
    std::vector<uint8_t> buf(capacity == 0 ? 1 : capacity);
    uint32_t size = 0;
    if (korvel::exif_read_thumbnail(path.c_str(), buf.data(), capacity, &size) == 0 &&
        (size == 0 || size > capacity)) {
        abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // The file is removed after every input: libFuzzer may end without destructors.
    static ScratchFile scratch("fuzz_exif");
    scratch.write(data, size);

    Fields a;
    korvel::exif_read_photo_info(a.f[0].data(), a.f[1].data(), a.f[2].data(), a.f[3].data(),
                                 a.f[4].data(), a.f[5].data(), scratch.path.c_str());
    a.check();

    // The input also as a segment on its own, copied so that its end is the heap block's end.
    std::vector<uint8_t> segment(data, data + size);
    Fields b;
    korvel::exif_parse_app1(segment.data(), uint32_t(segment.size()), b.f[0].data(), b.f[1].data(),
                            b.f[2].data(), b.f[3].data(), b.f[4].data(), b.f[5].data());
    b.check();

    read_thumbnail(scratch.path, 122880);
    read_thumbnail(scratch.path, size > 0 ? uint32_t(data[size - 1]) * 4 : 0);
    unlink(scratch.path.c_str());
    return 0;
}

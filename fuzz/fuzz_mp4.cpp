// Arbitrary bytes as an MP4 file: the video-facts step (which asks the reader for every
// track's facts) stays in bounds, the six texts stay inside their 16 bytes, and the facts step
// succeeds exactly when the reader opens the file. Run libFuzzer with -close_fd_mask=2 to hush the
// "MP4Read error!" of refused inputs.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "media/mp4.h"
#include "media/mp4_reader.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    int fd = memfd_create("clip", 0);
    if (write(fd, data, size) != ssize_t(size)) {
        abort();
    }
    char f[6][16];
    memset(f, 0x7F, sizeof f);
    for (auto& field : f) {
        field[0] = 0;  // a field the step leaves alone stays empty
    }
    int rc = korvel::mp4_read_video_info_fd(f[0], f[1], f[2], f[3], f[4], f[5], fd);
    korvel::Mp4Handle file(korvel::mp4_open_fd(fd));
    for (auto& field : f) {
        if (memchr(field, 0, sizeof field) == nullptr || (rc == 0) != (file != nullptr)) {
            abort();
        }
    }
    close(fd);
    return 0;
}

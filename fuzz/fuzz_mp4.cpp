// Arbitrary bytes as an MP4 file: the video-facts step (which asks the reader for every
// track's facts) stays in bounds, the six texts stay inside their 16 bytes, and the facts step
// succeeds exactly when the reader opens the file. Run libFuzzer with -close_fd_mask=2 to hush the
// "MP4Read error!" of refused inputs.
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "media/mp4.h"
#include "media/mp4_reader.h"
#include "scratch_file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string path = scratch_file("fuzz_mp4", data, size);
    char f[6][16];
    memset(f, 0x7F, sizeof f);
    for (auto& field : f) {
        field[0] = 0;  // a field the step leaves alone stays empty
    }
    int rc = korvel::mp4_read_video_info(f[0], f[1], f[2], f[3], f[4], f[5], path.c_str());
    korvel::Mp4Handle file(korvel::mp4_open(path.c_str()));
    bool terminated = true;
    for (auto& field : f) {
        terminated = terminated && memchr(field, 0, sizeof field) != nullptr;
    }
    if (!terminated || (rc == 0) != (file != nullptr)) {
        abort();
    }
    unlink(path.c_str());
    return 0;
}

// Arbitrary bytes as an MP4 file: the video-facts step and every reader call on every track
// stay in bounds, the six texts stay inside their 16 bytes, and the facts step succeeds
// exactly when the reader opens the file. Run libFuzzer with -close_fd_mask=2 to hush the
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
    uint32_t count = korvel::mp4_track_count(file.get());
    for (uint32_t i = 0; i <= count + 1; ++i) {
        uint32_t id = i > count ? 0xFFFFFFFFu : korvel::mp4_track_id(file.get(), i);
        char original[8] = {0};
        uint8_t profile = 0, level = 0;
        korvel::mp4_track_type(file.get(), id);
        korvel::mp4_media_data_name(file.get(), id);
        korvel::mp4_media_original_format(file.get(), id, original, sizeof original);
        korvel::mp4_h264_profile_level(file.get(), id, &profile, &level);
        korvel::mp4_esds_object_type(file.get(), id);
        korvel::mp4_video_profile_level(file.get(), id);
        korvel::mp4_track_bit_rate(file.get(), id);
        korvel::mp4_video_frame_rate(file.get(), id);
    }
    unlink(path.c_str());
    return 0;
}

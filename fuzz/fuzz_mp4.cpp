// Arbitrary bytes as an MP4 file: the video-facts step and every reader call on every track
// must neither crash nor read out of bounds, the six texts must stay inside their 16 bytes,
// and the facts step must succeed exactly when the reader opens the file. Refused inputs
// print "MP4Read error!" to stderr; run libFuzzer with -close_fd_mask=2 to hush them.
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "media/mp4.h"
#include "media/mp4_reader.h"
#include "scratch_file.h"

namespace {

void query_track(const korvel::Mp4File* f, uint32_t id) {
    char original[8] = {0};
    uint8_t profile = 0, level = 0;
    const char* type = korvel::mp4_track_type(f, id);
    const char* name = korvel::mp4_media_data_name(f, id);
    if ((type && strlen(type) > 4) || (name && strlen(name) > 4)) {
        abort();
    }
    korvel::mp4_media_original_format(f, id, original, sizeof original);
    korvel::mp4_h264_profile_level(f, id, &profile, &level);
    korvel::mp4_esds_object_type(f, id);
    korvel::mp4_video_profile_level(f, id);
    korvel::mp4_convert_from_track_duration(f, id, korvel::mp4_track_duration(f, id), 1000);
    korvel::mp4_track_bit_rate(f, id);
    korvel::mp4_video_width(f, id);
    korvel::mp4_video_height(f, id);
    korvel::mp4_video_frame_rate(f, id);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // The file is removed after every input: libFuzzer may end without destructors.
    static ScratchFile scratch("fuzz_mp4");
    scratch.write(data, size);

    char fields[6][16];
    memset(fields, 0x7F, sizeof fields);
    for (auto& field : fields) {
        field[0] = 0;
    }
    int rc = korvel::mp4_read_video_info(fields[0], fields[1], fields[2], fields[3], fields[4],
                                         fields[5], scratch.path.c_str());
    for (auto& field : fields) {
        if (memchr(field, 0, sizeof field) == nullptr) {
            abort();
        }
    }

    korvel::Mp4Handle file(korvel::mp4_open(scratch.path.c_str()));
    if ((rc == 0) != (file != nullptr)) {
        abort();
    }
    uint32_t count = korvel::mp4_track_count(file.get());
    for (uint32_t i = 0; i <= count; ++i) {
        query_track(file.get(), korvel::mp4_track_id(file.get(), i));
    }
    query_track(file.get(), 0xFFFFFFFFu);
    unlink(scratch.path.c_str());
    return 0;
}

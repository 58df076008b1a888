// A small reader of MP4/MOV box trees: the few track facts the video-facts step asks for.
// The whole moov is read and checked at open; every later call only looks at the parsed
// result. No shared state: one handle belongs to one caller.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

namespace korvel {

struct Mp4File;

// The track id that names no track.
constexpr uint32_t MP4_INVALID_TRACK_ID = 0;
// Returned by the duration calls when there is no answer.
constexpr uint64_t MP4_INVALID_DURATION = UINT64_MAX;
// Largest moov we agree to hold in memory; anything bigger is refused at open. A one-hour
// clip's moov is a few MiB at most.
constexpr uint64_t MP4_MOOV_CAP = 16ull * 1024 * 1024;
// Top-level boxes looked at before the moov; a camera file has a handful (ftyp, free, mdat).
constexpr uint32_t MP4_TOP_BOXES_MAX = 1024;

// Null when the file cannot be opened or is not a well-formed MP4/MOV.
Mp4File* mp4_open(const char* path);
// The same from a descriptor the caller opened (and keeps), read with pread only.
Mp4File* mp4_open_fd(int fd);
void mp4_close(Mp4File* file);

struct Mp4FileCloser {
    void operator()(Mp4File* file) const { mp4_close(file); }
};
using Mp4Handle = std::unique_ptr<Mp4File, Mp4FileCloser>;

// Tracks of every type, in file order; index past the end gives MP4_INVALID_TRACK_ID.
uint32_t mp4_track_count(const Mp4File* file);
uint32_t mp4_track_id(const Mp4File* file, uint32_t index);

// The calls below find their track by id (the first track with that id).
// Handler type ("vide", "soun", ...) or null for an unknown id.
const char* mp4_track_type(const Mp4File* file, uint32_t trackId);
// Type of the only sample entry, or null when the sample table has none or several.
const char* mp4_media_data_name(const Mp4File* file, uint32_t trackId);
// Four characters and a NUL from sinf/frma of the first sample entry; false when absent
// or the buffer is shorter than 5 bytes (it is then left untouched).
bool mp4_media_original_format(const Mp4File* file, uint32_t trackId, char* buffer, size_t length);
bool mp4_h264_profile_level(const Mp4File* file, uint32_t trackId, uint8_t* profile,
                            uint8_t* level);
// objectTypeIndication of the first entry's decoder config, 0 when there is none.
uint8_t mp4_esds_object_type(const Mp4File* file, uint32_t trackId);
// Visual profile-level: the file's initial object descriptor first, else the track's
// decoder config (MPEG-4 Visual only), else 0.
uint8_t mp4_video_profile_level(const Mp4File* file, uint32_t trackId);
// Media duration in the track's own timescale.
uint64_t mp4_track_duration(const Mp4File* file, uint32_t trackId);
// Duration converted from the track's timescale to toScale units; MP4_INVALID_DURATION
// when the track has no usable timescale.
uint64_t mp4_convert_from_track_duration(const Mp4File* file, uint32_t trackId, uint64_t duration,
                                         uint32_t toScale);
// Average bit rate in bit/s: the decoder config's figure, else computed from sample sizes.
uint32_t mp4_track_bit_rate(const Mp4File* file, uint32_t trackId);
uint16_t mp4_video_width(const Mp4File* file, uint32_t trackId);
uint16_t mp4_video_height(const Mp4File* file, uint32_t trackId);
double mp4_video_frame_rate(const Mp4File* file, uint32_t trackId);

// Exposed for tests: t scaled from timescale `from` to `to`, floored; rounded through
// double only when t is too large for exact 64-bit arithmetic. False when from is 0.
bool mp4_rescale(uint64_t t, uint32_t from, uint32_t to, uint64_t* result);

}  // namespace korvel

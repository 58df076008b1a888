// Video track facts of MP4 and MOV files (and the camera's .2nd streams).
#pragma once

namespace korvel {

int mp4_read_video_info(char* avgBitRate, char* frameRate, char* codeFormat, char* duration,
                        char* width, char* height, const char* path);
// The same from a descriptor the caller opened (and keeps).
int mp4_read_video_info_fd(char* avgBitRate, char* frameRate, char* codeFormat, char* duration,
                           char* width, char* height, int fd);

}  // namespace korvel

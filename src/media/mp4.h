// Video track facts of MP4 and MOV files (and the camera's .2nd streams).
#pragma once

namespace korvel {

int mp4_read_video_info(char* avgBitRate, char* frameRate, char* codeFormat, char* duration,
                        char* width, char* height, const char* path);

}  // namespace korvel

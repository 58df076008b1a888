// EXIF facts and the embedded thumbnail of the camera's JPEG photos. No shared state:
// byte order, buffers and positions belong to one call.
#pragma once

#include <cstdint>
#include <cstdio>

namespace korvel {

int exif_read_photo_info(char* maker, char* model, char* width, char* height, char* resUnit,
                         char* colourSpace, const char* path);
// The same from a descriptor the caller opened (and keeps); read from its first byte.
int exif_read_photo_info_fd(char* maker, char* model, char* width, char* height, char* resUnit,
                            char* colourSpace, int fd);
int exif_parse_app1(const uint8_t* segment, uint32_t segmentLength, char* maker, char* model,
                    char* width, char* height, char* resUnit, char* colourSpace);
// Copies the IFD1 thumbnail into buffer when it fits in capacity; 0 with *size set, else -1.
int exif_read_thumbnail(const char* path, uint8_t* buffer, uint32_t capacity, uint32_t* size);
int exif_read_thumbnail_fd(int fd, uint8_t* buffer, uint32_t capacity, uint32_t* size);
int jpeg_check_soi(FILE* fp);
void jpeg_skip_app0(FILE* fp);

}  // namespace korvel

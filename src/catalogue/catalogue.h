// Catalogue types and the small helpers the scan, the walk and the delivery share.
// Everything here runs on an event base's worker thread.
#pragma once

#include <cstddef>
#include <cstdint>

namespace korvel {

constexpr uint16_t CATALOGUE_NONE = 0;
constexpr uint16_t CATALOGUE_ALL = 1;
constexpr uint16_t CATALOGUE_JPG = 2;
constexpr uint16_t CATALOGUE_JPG_THM = 3;
constexpr uint16_t CATALOGUE_DNG = 4;
constexpr uint16_t CATALOGUE_MP4 = 5;
constexpr uint16_t CATALOGUE_MP4_EXTRA = 6;
constexpr uint16_t CATALOGUE_VIDEO = 7;
constexpr uint16_t CATALOGUE_LAST_5MIN = 8;
constexpr uint16_t CATALOGUE_LAST_10MIN = 9;
constexpr uint16_t CATALOGUE_LAST_30MIN = 10;
constexpr uint16_t CATALOGUE_LAST_60MIN = 11;

// Seconds since the last status change up to which a file counts for a recent-file type;
// -1 for the other types.
int32_t recent_limit_seconds(uint16_t type);

// File names come from readdir, so a name and each of its parts fit in this.
constexpr size_t NAME_BUF = 256;

}  // namespace korvel

// Storage roots, and the checks that keep every request inside the memory card.
#pragma once

#include <cstdint>
#include <string>

namespace korvel {

std::string get_sd_root();         // "/tmp/SD0"
std::string get_media_dir_name();  // "MEDIA"
std::string get_storage_root(int32_t id);
int32_t get_storage_id(const std::string& path);

// Whether a resolved name stays inside the storage root: the directory field and the file
// field are plain names (no '/', not "." or ".."), and the location lies under the card.
// `root` is the location the name was resolved against. Checked before any file is touched.
bool is_confined(const char* root, const std::string& filename, const std::string& absfiledir);

}  // namespace korvel

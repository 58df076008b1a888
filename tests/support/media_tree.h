// A memory card laid out in a temporary directory for catalogue tests: <tmp>/card is the
// storage root, <tmp>/card/DCIM the location, media directories below it. Status-change
// times cannot be set, so age checks work from the ctime each file really got.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "support/temp_dir.h"

namespace korvel {
namespace testsupport {

class MediaTree {
public:
    MediaTree();
    MediaTree(const MediaTree&) = delete;
    MediaTree& operator=(const MediaTree&) = delete;

    const std::string& card() const { return cardDir; }
    const std::string& location() const { return locationDir; }

    // Creates location/dir (and the location itself); returns its path.
    std::string add_dir(const std::string& dir) const;
    // Creates location/dir/name holding `size` bytes; returns its path.
    std::string add_file(const std::string& dir, const std::string& name, size_t size = 0) const;
    void add_files(const std::string& dir, const std::vector<std::string>& names) const;
    std::string path(const std::string& dir, const std::string& name) const;

    // The status-change time the file really has (lstat); 0 when it cannot be read.
    time_t ctime_of(const std::string& dir, const std::string& name) const;

private:
    TempDir tmp;
    std::string cardDir;
    std::string locationDir;
};

// Entry names of a directory in readdir order, "." and ".." left out: the order the
// catalogue must keep.
std::vector<std::string> dir_order(const std::string& dir);

}  // namespace testsupport
}  // namespace korvel

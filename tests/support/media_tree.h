// A memory card in a temporary directory for catalogue tests: <tmp>/card is the storage
// root and <tmp>/card/DCIM the location, with media directories below it.
#pragma once

#include <string>
#include <vector>

#include "support/temp_dir.h"

namespace korvel {
namespace testsupport {

class MediaTree {
public:
    MediaTree() { make_dirs(cardDir); }
    const std::string& card() const { return cardDir; }
    const std::string& location() const { return locationDir; }
    std::string path(const std::string& dir, const std::string& name) const {
        return locationDir + "/" + dir + "/" + name;
    }
    // Creates location/dir/name holding `size` zero bytes (directories as needed).
    std::string add_file(const std::string& dir, const std::string& name, size_t size = 0) const;
    void add_files(const std::string& dir, const std::vector<std::string>& names) const;

private:
    TempDir tmp;
    std::string cardDir = tmp.file("card");
    std::string locationDir = cardDir + "/DCIM";
};

// Entry names of a directory in readdir order, without "." and "..": the order that the
// catalogue keeps.
std::vector<std::string> dir_order(const std::string& dir);

}  // namespace testsupport
}  // namespace korvel

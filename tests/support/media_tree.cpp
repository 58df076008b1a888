#include "support/media_tree.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstring>

namespace korvel {
namespace testsupport {

std::string MediaTree::add_file(const std::string& dir, const std::string& name,
                                size_t size) const {
    make_dirs(locationDir + "/" + dir);
    std::string p = path(dir, name);
    int fd = open(p.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0 || ftruncate(fd, static_cast<off_t>(size)) != 0) {
        p.clear();
    }
    if (fd >= 0) {
        close(fd);
    }
    return p;
}

void MediaTree::add_files(const std::string& dir, const std::vector<std::string>& names) const {
    for (const std::string& n : names) {
        add_file(dir, n);
    }
}

std::vector<std::string> dir_order(const std::string& dir) {
    std::vector<std::string> names;
    if (DIR* d = opendir(dir.c_str())) {
        while (struct dirent* e = readdir(d)) {
            if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) {
                names.emplace_back(e->d_name);
            }
        }
        closedir(d);
    }
    return names;
}

}  // namespace testsupport
}  // namespace korvel

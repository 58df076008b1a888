#include "support/media_tree.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

namespace korvel {
namespace testsupport {

MediaTree::MediaTree() : cardDir(tmp.file("card")), locationDir(cardDir + "/DCIM") {
    make_dirs(cardDir);
}

std::string MediaTree::add_dir(const std::string& dir) const {
    std::string p = locationDir + "/" + dir;
    make_dirs(p);
    return p;
}

std::string MediaTree::add_file(const std::string& dir, const std::string& name,
                                size_t size) const {
    add_dir(dir);
    std::string p = path(dir, name);
    int fd = open(p.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd >= 0) {
        if (size > 0 && ftruncate(fd, static_cast<off_t>(size)) != 0) {
            p.clear();
        }
        close(fd);
    }
    return p;
}

void MediaTree::add_files(const std::string& dir, const std::vector<std::string>& names) const {
    add_dir(dir);
    for (const std::string& n : names) {
        add_file(dir, n);
    }
}

std::string MediaTree::path(const std::string& dir, const std::string& name) const {
    return locationDir + "/" + dir + "/" + name;
}

time_t MediaTree::ctime_of(const std::string& dir, const std::string& name) const {
    struct stat st;
    return lstat(path(dir, name).c_str(), &st) == 0 ? st.st_ctime : 0;
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

#include "support/temp_dir.h"

#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace korvel {
namespace testsupport {

TempDir::TempDir() {
    char tmpl[] = "/tmp/korvel-test-XXXXXX";
    const char* made = mkdtemp(tmpl);
    dir = made ? made : "/tmp";
}

TempDir::~TempDir() {
    if (dir != "/tmp") {
        remove_tree(dir);
    }
}

void make_dirs(const std::string& path) {
    std::string cur;
    std::stringstream ss(path);
    std::string part;
    while (std::getline(ss, part, '/')) {
        if (part.empty()) {
            cur += "/";
            continue;
        }
        cur += part;
        mkdir(cur.c_str(), 0777);
        cur += "/";
    }
}

void write_file(const std::string& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

bool exists(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

static int remove_entry(const char* p, const struct stat*, int, struct FTW*) {
    chmod(p, 0777);  // a test may have made a directory read-only
    return remove(p);
}

void remove_tree(const std::string& path) {
    chmod(path.c_str(), 0777);
    nftw(path.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS);
}

std::string run_command(const std::string& cmd, int* status) {
    std::string out;
    FILE* p = popen(cmd.c_str(), "r");
    char chunk[4096];
    for (size_t n; p != nullptr && (n = fread(chunk, 1, sizeof chunk, p)) > 0;) {
        out.append(chunk, n);
    }
    int s = p != nullptr ? pclose(p) : -1;
    if (status != nullptr) {
        *status = s;
    }
    return out;
}

bool on_path(const char* tool) {
    int status = 0;
    run_command(std::string("command -v ") + tool + " >/dev/null 2>&1", &status);
    return status == 0;
}

bool eventually(const std::function<bool()>& condition, int ms) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        usleep(5000);
    }
    return true;
}

}  // namespace testsupport
}  // namespace korvel

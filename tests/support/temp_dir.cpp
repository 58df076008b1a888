#include "support/temp_dir.h"

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

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
    std::error_code ec;
    std::filesystem::create_directories(path, ec);
}

void write_file(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

bool exists(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

void remove_tree(const std::string& path) {
    std::error_code ec;
    std::filesystem::remove_all(path, ec);
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

std::string pattern(size_t n, uint32_t seed) {
    std::string s(n, '\0');
    for (char& c : s) {
        seed = seed * 1103515245u + 12345u;
        c = static_cast<char>(seed >> 16);
    }
    return s;
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

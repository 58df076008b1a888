// A temporary directory for one test, removed with everything in it at the end, and the
// file and process helpers the tests share.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace korvel {
namespace testsupport {

class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return dir; }
    std::string file(const std::string& rel) const { return dir + "/" + rel; }

private:
    std::string dir;
};

// Helpers for building trees: create parent directories and write bytes.
void make_dirs(const std::string& path);
void write_file(const std::string& path, const std::string& bytes);
std::string read_file(const std::string& path);
bool exists(const std::string& path);
void remove_tree(const std::string& path);
// Runs `cmd` through the shell (the Debian tools some tests compare against); its standard
// output, with the exit status as pclose reports it in *status.
std::string run_command(const std::string& cmd, int* status = nullptr);
bool on_path(const char* tool);
// Deterministic bytes that differ at every offset, so bytes from the wrong place never match.
std::string pattern(size_t n, uint32_t seed = 1);
// Polls `condition` until it holds or `ms` have passed; whether it held.
bool eventually(const std::function<bool()>& condition, int ms = 10000);

}  // namespace testsupport
}  // namespace korvel

// Replays every file of the given corpus directories (or single files) through the fuzz
// target, so the targets build and run without libFuzzer.
#include <dirent.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

static int replay_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "cannot read %s\n", path.c_str());
        return 1;
    }
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)),
                               std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    return 0;
}

int main(int argc, char** argv) {
    int failures = 0;
    int count = 0;
    for (int i = 1; i < argc; ++i) {
        struct stat st;
        if (stat(argv[i], &st) != 0) {
            std::fprintf(stderr, "missing %s\n", argv[i]);
            return 1;
        }
        if (!S_ISDIR(st.st_mode)) {
            failures += replay_file(argv[i]);
            ++count;
            continue;
        }
        DIR* dir = opendir(argv[i]);
        while (dirent* e = dir ? readdir(dir) : nullptr) {
            if (e->d_name[0] == '.') {
                continue;
            }
            failures += replay_file(std::string(argv[i]) + "/" + e->d_name);
            ++count;
        }
        if (dir) {
            closedir(dir);
        }
    }
    std::printf("replayed %d inputs\n", count);
    return failures == 0 ? 0 : 1;
}

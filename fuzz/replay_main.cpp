// Replays every file of the given corpus directories through the fuzz target, so the targets
// build and run without libFuzzer.
#include <dirent.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
    int count = 0;
    for (int i = 1; i < argc; ++i) {
        DIR* dir = opendir(argv[i]);
        if (dir == nullptr) {
            std::fprintf(stderr, "cannot read %s\n", argv[i]);
            return 1;
        }
        while (dirent* e = readdir(dir)) {
            std::ifstream in(std::string(argv[i]) + "/" + e->d_name, std::ios::binary);
            if (e->d_name[0] != '.' && in) {
                std::vector<uint8_t> b((std::istreambuf_iterator<char>(in)), {});
                LLVMFuzzerTestOneInput(b.data(), b.size());
                ++count;
            }
        }
        closedir(dir);
    }
    std::printf("replayed %d inputs\n", count);
    return 0;
}

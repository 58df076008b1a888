// Replays every file of the given corpus directories through the fuzz target, so the targets
// build and run without libFuzzer. A missing directory ends the run with an exception.
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        for (const auto& e : std::filesystem::directory_iterator(argv[i])) {
            std::ifstream in(e.path(), std::ios::binary);
            std::vector<uint8_t> b((std::istreambuf_iterator<char>(in)), {});  // exact heap block
            LLVMFuzzerTestOneInput(b.data(), b.size());
        }
    }
}

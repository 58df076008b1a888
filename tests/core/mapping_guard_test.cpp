// Reads of a file mapping whose pages are gone: a guarded read reports the loss and the
// thread goes on; any other such read still ends the process as before.
#include "core/mapping_guard.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "core/packet.h"
#include "support/temp_dir.h"

namespace korvel {
namespace {

// Three pages of a file mapped, then the file cut to one page.
struct ShrunkMapping {
    testsupport::TempDir tmp;
    uint8_t* base = nullptr;
    static constexpr size_t SIZE = 3 * 4096;
    ShrunkMapping() {
        std::string path = tmp.file("clip");
        testsupport::write_file(path, std::string(SIZE, 'k'));
        int fd = open(path.c_str(), O_RDONLY);
        void* p = mmap(nullptr, SIZE, PROT_READ, MAP_SHARED, fd, 0);
        close(fd);
        EXPECT_NE(p, MAP_FAILED);
        base = static_cast<uint8_t*>(p);
        EXPECT_EQ(truncate(path.c_str(), 4096), 0);
    }
    ~ShrunkMapping() { munmap(base, SIZE); }
};

TEST(MappingGuard, LostPagesFailTheReadEveryTimeAndKeptPagesStillCount) {
    install_mapping_guard();
    ShrunkMapping m;
    uint32_t crc = 0;
    ASSERT_TRUE(crc32_guarded(0, m.base, 4096, crc));
    EXPECT_EQ(crc, crc32_calc(0, m.base, 4096));
    // Again and again: the handler must stay armed and SIGBUS must not end up blocked.
    for (int i = 0; i < 100; ++i) {
        EXPECT_FALSE(crc32_guarded(0, m.base, ShrunkMapping::SIZE, crc));
    }
    EXPECT_TRUE(crc32_guarded(7, m.base + 100, 1000, crc));
    EXPECT_EQ(crc, crc32_calc(7, m.base + 100, 1000));
}

TEST(MappingGuardDeathTest, UnguardedReadOfLostPagesStillFaults) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // Killed by SIGBUS, or reported and ended by a sanitizer's handler: never survived.
    EXPECT_DEATH(
        {
            install_mapping_guard();
            ShrunkMapping m;
            volatile uint8_t b = m.base[2 * 4096];
            (void)b;
            _exit(0);
        },
        "");
}

}  // namespace
}  // namespace korvel

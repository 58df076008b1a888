// Reads of a file mapping whose pages are gone: a guarded read reports the loss and the
// thread goes on; any other such read still ends the process as before.
#include "core/mapping_guard.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "core/packet.h"
#include "support/temp_dir.h"

namespace korvel {
namespace {

constexpr size_t SIZE = 3 * 4096;

// Three pages of a file mapped, then the file cut to one page.
uint8_t* shrunk_mapping(const testsupport::TempDir& tmp) {
    testsupport::write_file(tmp.file("clip"), std::string(SIZE, 'k'));
    int fd = open(tmp.file("clip").c_str(), O_RDONLY);
    void* p = mmap(nullptr, SIZE, PROT_READ, MAP_SHARED, fd, 0);
    close(fd);
    EXPECT_NE(p, MAP_FAILED);
    EXPECT_EQ(truncate(tmp.file("clip").c_str(), 4096), 0);
    return static_cast<uint8_t*>(p);
}

TEST(MappingGuard, LostPagesFailTheReadEveryTimeAndKeptPagesStillCount) {
    install_mapping_guard();
    testsupport::TempDir tmp;
    uint8_t* base = shrunk_mapping(tmp);
    uint32_t crc = 0;
    ASSERT_TRUE(crc32_guarded(0, base, 4096, crc));
    EXPECT_EQ(crc, crc32_calc(0, base, 4096));
    // Again and again: the handler must stay armed and SIGBUS must not end up blocked.
    for (int i = 0; i < 100; ++i) {
        EXPECT_FALSE(crc32_guarded(0, base, SIZE, crc));
    }
    EXPECT_TRUE(crc32_guarded(7, base + 100, 1000, crc));
    EXPECT_EQ(crc, crc32_calc(7, base + 100, 1000));
    munmap(base, SIZE);
}

TEST(MappingGuardDeathTest, UnguardedReadOfLostPagesStillFaults) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // Killed by SIGBUS, or reported and ended by a sanitizer's handler: never survived.
    EXPECT_DEATH(
        {
            install_mapping_guard();
            testsupport::TempDir tmp;
            volatile uint8_t b = shrunk_mapping(tmp)[2 * 4096];
            (void)b;
            _exit(0);
        },
        "");
}

}  // namespace
}  // namespace korvel

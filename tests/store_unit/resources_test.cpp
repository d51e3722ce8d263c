#include "pkgd/resources.hpp"

#include <gtest/gtest.h>
#include <sys/statvfs.h>
#include <sys/sysinfo.h>

#include <cstdint>
#include <limits>
#include <sstream>

namespace pkgd {
namespace {

struct Figures {
    std::int32_t total = -1;  // "untouched" marker
    std::int32_t free = -1;
};

Figures meminfo(const std::string& text) {
    Figures f;
    std::istringstream in(text);
    read_meminfo(in, f.total, f.free);
    return f;
}

TEST(Meminfo, TotalAndFreeComeFromTheFirstTwoLines) {
    const Figures f =
        meminfo("MemTotal:       24683620 kB\nMemFree:        23344808 kB\nMemAvailable: 1 kB\n");
    EXPECT_EQ(f.total, 24683620);
    EXPECT_EQ(f.free, 23344808);

    // The same names further down are not looked for.
    const Figures swapped = meminfo("MemFree:  10 kB\nMemTotal: 20 kB\n");
    EXPECT_EQ(swapped.total, -1);
    EXPECT_EQ(swapped.free, -1);

    const Figures late_free = meminfo("MemTotal: 20 kB\nMemAvailable: 5 kB\nMemFree: 10 kB\n");
    EXPECT_EQ(late_free.total, 20);
    EXPECT_EQ(late_free.free, -1);

    const Figures empty = meminfo("");
    EXPECT_EQ(empty.total, -1);
    EXPECT_EQ(empty.free, -1);
}

TEST(Meminfo, ValuesAreReadLikeDecimalIntegersAndHeldInRange) {
    const Figures no_digits = meminfo("MemTotal: lots\nMemFree:7\n");
    EXPECT_EQ(no_digits.total, -1);
    EXPECT_EQ(no_digits.free, 7);
    EXPECT_FALSE(meminfo_value(" MemTotal: 5", "MemTotal"));
    EXPECT_FALSE(meminfo_value("MemTotalX: 5", "MemTotal"));
    EXPECT_EQ(meminfo_value("MemTotal:\t 42kB", "MemTotal"), 42);
    EXPECT_EQ(meminfo_value("MemTotal: -3", "MemTotal"), -3);
    EXPECT_EQ(meminfo_value("MemTotal: 99999999999999999999 kB", "MemTotal"),
              std::numeric_limits<std::int32_t>::max());
}

TEST(Storage, BlocksCountFourKilobytesAndLargeFileSystemsDoNotWrap) {
    std::int32_t total = 0;
    std::int32_t free = 0;
    storage_from_blocks(1000, 250, total, free);
    EXPECT_EQ(total, 4000);
    EXPECT_EQ(free, 1000);

    storage_from_blocks(std::uint64_t{1} << 40, std::uint64_t{1} << 29, total, free);
    EXPECT_EQ(total, std::numeric_limits<std::int32_t>::max());
    EXPECT_EQ(free, std::numeric_limits<std::int32_t>::max());  // 2^31 kB is one too many
}

TEST(SystemFigures, MatchWhatTheKernelReportsElsewhere) {
    std::int32_t total = 0;
    std::int32_t free = 0;
    package_get_sys_memroy(total, free);
    struct sysinfo si {};
    ASSERT_EQ(sysinfo(&si), 0);
    EXPECT_EQ(static_cast<std::uint64_t>(total), std::uint64_t{si.totalram} * si.mem_unit / 1024);
    EXPECT_GT(free, 0);
    EXPECT_LE(free, total);

    std::int32_t st_total = 0;
    std::int32_t st_free = 0;
    ASSERT_EQ(package_get_sys_storage(st_total, st_free), 0);
    struct statvfs vfs {};
    ASSERT_EQ(statvfs("/", &vfs), 0);
    if (vfs.f_blocks * 4 < static_cast<std::uint64_t>(std::numeric_limits<std::int32_t>::max())) {
        EXPECT_EQ(static_cast<std::uint64_t>(st_total), vfs.f_blocks * 4);
    }
    // Free space counts the blocks reserved for the superuser as well.
    EXPECT_GE(static_cast<std::uint64_t>(st_free), std::min<std::uint64_t>(vfs.f_bavail * 4, INT32_MAX));
    EXPECT_LE(st_free, st_total);
}

}  // namespace
}  // namespace pkgd

// Reading the memory and storage figures (the sandbox tests compare the live ones with the host's).
#include "pkgd/resources.hpp"

#include <gtest/gtest.h>

#include <limits>
#include <sstream>

namespace pkgd {
namespace {

constexpr std::int32_t kMax = std::numeric_limits<std::int32_t>::max();

TEST(Meminfo, TotalAndFreeComeFromTheFirstTwoLinesEachLeftAloneWithoutItsFigure) {
    const std::pair<const char*, std::pair<std::int32_t, std::int32_t>> cases[] = {
        {"MemTotal:       24683620 kB\nMemFree:        23344808 kB\nMemAvailable: 1 kB\n",
         {24683620, 23344808}},
        // The same names further down are not looked for.
        {"MemFree:  10 kB\nMemTotal: 20 kB\n", {-1, -1}},
        {"MemTotal: 20 kB\nMemAvailable: 5 kB\nMemFree: 10 kB\n", {20, -1}},
        {"", {-1, -1}},
        {"MemTotal: lots\nMemFree:7\n", {-1, 7}},
    };
    for (const auto& [text, figures] : cases) {
        std::pair<std::int32_t, std::int32_t> read{-1, -1};  // -1: untouched
        std::istringstream in(text);
        read_meminfo(in, read.first, read.second);
        EXPECT_EQ(read, figures) << text;
    }
    EXPECT_FALSE(meminfo_value(" MemTotal: 5", "MemTotal"));
    EXPECT_FALSE(meminfo_value("MemTotalX: 5", "MemTotal"));
    EXPECT_EQ(meminfo_value("MemTotal:\t 42kB", "MemTotal"), 42);
    EXPECT_EQ(meminfo_value("MemTotal: -3", "MemTotal"), -3);
    EXPECT_EQ(meminfo_value("MemTotal: 99999999999999999999 kB", "MemTotal"), kMax);
}

TEST(Storage, BlocksCountFourKilobytesAndLargeFileSystemsDoNotWrap) {
    std::int32_t total = 0;
    std::int32_t free = 0;
    storage_from_blocks(1000, 250, total, free);
    EXPECT_EQ(std::pair(total, free), std::pair(4000, 1000));
    storage_from_blocks(std::uint64_t{1} << 40, std::uint64_t{1} << 29, total, free);
    EXPECT_EQ(std::pair(total, free), std::pair(kMax, kMax));  // 2^31 kB is one too many
}

}  // namespace
}  // namespace pkgd

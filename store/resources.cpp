#include "pkgd/resources.hpp"

#include <array>
#include <cstddef>
#include <limits>
#include <sstream>
#include <string>

namespace pkgd {
namespace {

constexpr std::size_t kMeminfoLineMax = 1023;

// One line of at most kMeminfoLineMax characters, the newline included when it fits (a longer
// line is continued by the next read). Nothing at the end of the input.
std::optional<std::string_view> read_bounded_line(std::istream& in, std::array<char, kMeminfoLineMax>& buf) {
    std::size_t n = 0;
    char c = 0;
    while (n < buf.size() && in.get(c)) {
        buf[n++] = c;
        if (c == '\n') break;
    }
    if (n == 0) return std::nullopt;
    return std::string_view(buf.data(), n);
}

std::int32_t clamp_to_i32(std::uint64_t v) {
    constexpr auto kMax = static_cast<std::uint64_t>(std::numeric_limits<std::int32_t>::max());
    return static_cast<std::int32_t>(v < kMax ? v : kMax);
}

bool is_scan_space(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

}  // namespace

std::optional<std::int32_t> meminfo_value(std::string_view line, std::string_view key) {
    if (!line.starts_with(key) || line.substr(key.size(), 1) != ":") return std::nullopt;
    std::size_t i = key.size() + 1;
    while (i < line.size() && is_scan_space(line[i])) ++i;
    bool negative = false;
    if (i < line.size() && (line[i] == '+' || line[i] == '-')) negative = line[i++] == '-';
    if (i >= line.size() || line[i] < '0' || line[i] > '9') return std::nullopt;

    // Saturating: a figure too large for the field must not come out as a small or negative one.
    constexpr std::uint64_t kLimit = std::uint64_t{1} << 31;
    std::uint64_t magnitude = 0;
    for (; i < line.size() && line[i] >= '0' && line[i] <= '9'; ++i) {
        magnitude = magnitude * 10 + static_cast<std::uint64_t>(line[i] - '0');
        if (magnitude > kLimit) magnitude = kLimit;
    }
    if (negative) return static_cast<std::int32_t>(-static_cast<std::int64_t>(magnitude));
    return clamp_to_i32(magnitude);
}

void read_meminfo(std::istream& in, std::int32_t& total, std::int32_t& free) {
    std::array<char, kMeminfoLineMax> buf{};
    if (const auto line = read_bounded_line(in, buf)) {
        if (const auto v = meminfo_value(*line, "MemTotal")) total = *v;
    }
    if (const auto line = read_bounded_line(in, buf)) {
        if (const auto v = meminfo_value(*line, "MemFree")) free = *v;
    }
}

void storage_from_blocks(std::uint64_t blocks, std::uint64_t free_blocks, std::int32_t& total,
                         std::int32_t& free) {
    constexpr std::uint64_t kKilobytesPerBlock = 4;
    constexpr std::uint64_t kMaxBlocks = std::numeric_limits<std::uint64_t>::max() / kKilobytesPerBlock;
    total = clamp_to_i32(blocks < kMaxBlocks ? blocks * kKilobytesPerBlock : kMaxBlocks);
    free = clamp_to_i32(free_blocks < kMaxBlocks ? free_blocks * kKilobytesPerBlock : kMaxBlocks);
}

void package_get_sys_memroy(SystemEnv& sys, std::int32_t& total, std::int32_t& free) {
    const std::optional<std::string> text = sys.meminfo();
    if (!text) return;
    std::istringstream in(*text);
    read_meminfo(in, total, free);
}

int package_get_sys_storage(SystemEnv& sys, std::int32_t& total, std::int32_t& free) {
    const std::optional<fs_figures> fs = sys.root_fs();
    if (!fs) return -1;
    storage_from_blocks(fs->blocks, fs->free_blocks, total, free);
    return 0;
}

void package_get_sys_memroy(std::int32_t& total, std::int32_t& free) {
    package_get_sys_memroy(real_system_env(), total, free);
}

int package_get_sys_storage(std::int32_t& total, std::int32_t& free) {
    return package_get_sys_storage(real_system_env(), total, free);
}

}  // namespace pkgd

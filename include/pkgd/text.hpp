// Small text helpers shared by the parsers of feed records, control files and bus arguments.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string_view>

namespace pkgd {

// The number of leading space, tab, carriage-return and line-feed characters of `text`. Other
// white space (vertical tab, form feed) is not skipped: the feed format never uses it.
constexpr std::size_t skip_white_space(std::string_view text) {
    std::size_t n = 0;
    while (n < text.size() && (text[n] == ' ' || text[n] == '\t' || text[n] == '\r' || text[n] == '\n')) ++n;
    return n;
}

// The decimal number at the start of `text`, read the way atoi reads it: leading blanks (space,
// tab, line feed, vertical tab, form feed, carriage return) and one sign are allowed, reading stops
// at the first other character, and a text without digits reads 0. Where atoi would overflow, the
// value saturates at the int32 range.
constexpr std::int32_t leading_decimal(std::string_view text) {
    std::size_t i = 0;
    while (i < text.size() && (text[i] == ' ' || (text[i] >= '\t' && text[i] <= '\r'))) ++i;
    bool negative = false;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
    constexpr std::int64_t limit = std::int64_t{std::numeric_limits<std::int32_t>::max()} + 1;
    std::int64_t value = 0;
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
        if (value < limit) value = value * 10 + (text[i] - '0');
    }
    if (value > limit) value = limit;
    if (negative) return static_cast<std::int32_t>(-value);
    return static_cast<std::int32_t>(value == limit ? limit - 1 : value);
}

}  // namespace pkgd

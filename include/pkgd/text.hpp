// Small text helpers shared by the parsers of feed records and control files.
#pragma once

#include <cstddef>
#include <string_view>

namespace pkgd {

// The number of leading space, tab, carriage-return and line-feed characters of `text`. Other
// white space (vertical tab, form feed) is not skipped: the feed format never uses it.
constexpr std::size_t skip_white_space(std::string_view text) {
    std::size_t n = 0;
    while (n < text.size() && (text[n] == ' ' || text[n] == '\t' || text[n] == '\r' || text[n] == '\n')) ++n;
    return n;
}

}  // namespace pkgd

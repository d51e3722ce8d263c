#include "pkgd/engine_parts.hpp"

namespace pkgd {

// Segments split at "." only and compare by length first, then byte by byte: the feeds number
// their versions with plain decimal segments, so "9" < "10" without parsing numbers.
int opkg_compare_version(std::string_view a, std::string_view b) {
    for (;;) {
        const std::size_t a_end = std::min(a.find('.'), a.size());
        const std::size_t b_end = std::min(b.find('.'), b.size());
        if (a_end != b_end) return a_end < b_end ? 1 : 0;
        for (std::size_t i = 0; i < a_end; ++i) {
            const auto x = static_cast<unsigned char>(a[i]);
            const auto y = static_cast<unsigned char>(b[i]);
            if (x != y) return x < y ? 1 : 0;
        }
        // Equal so far: a text without a further segment is not older.
        if (a_end + 1 >= a.size() || b_end + 1 >= b.size()) return 0;
        a.remove_prefix(a_end + 1);
        b.remove_prefix(b_end + 1);
    }
}

}  // namespace pkgd

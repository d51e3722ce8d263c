// Ordering and text form of a UUID.
#include <cstdio>

#include "pkgd/uuid.hpp"

namespace pkgd {
namespace {

template <typename T>
int three_way(T a, T b) {
    return a < b ? -1 : (a > b ? 1 : 0);
}

}  // namespace

int uuid_compare(const uuid_fields& a, const uuid_fields& b) {
    if (int c = three_way(a.time_low, b.time_low)) return c;
    if (int c = three_way(a.time_mid, b.time_mid)) return c;
    if (int c = three_way(a.time_hi_and_version, b.time_hi_and_version)) return c;
    if (int c = three_way(a.clock_seq_hi_and_reserved, b.clock_seq_hi_and_reserved)) return c;
    if (int c = three_way(a.clock_seq_low, b.clock_seq_low)) return c;
    for (std::size_t i = 0; i < a.node.size(); ++i) {
        if (int c = three_way(a.node[i], b.node[i])) return c;
    }
    return 0;
}

std::string uuid_format(const uuid_fields& u) {
    char text[37];
    std::snprintf(text, sizeof text, "%8.8x-%4.4x-%4.4x-%2.2x%2.2x-%2.2x%2.2x%2.2x%2.2x%2.2x%2.2x",
                  static_cast<unsigned>(u.time_low), static_cast<unsigned>(u.time_mid),
                  static_cast<unsigned>(u.time_hi_and_version),
                  static_cast<unsigned>(u.clock_seq_hi_and_reserved), static_cast<unsigned>(u.clock_seq_low),
                  static_cast<unsigned>(u.node[0]), static_cast<unsigned>(u.node[1]),
                  static_cast<unsigned>(u.node[2]), static_cast<unsigned>(u.node[3]),
                  static_cast<unsigned>(u.node[4]), static_cast<unsigned>(u.node[5]));
    return text;
}

}  // namespace pkgd

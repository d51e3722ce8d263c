#include "pkgd/time_stamp.hpp"

#include <cstdio>

namespace pkgd {

std::string format_time_stamp(std::time_t when) {
    char text[64];
    std::tm local{};
    if (::localtime_r(&when, &local) == nullptr) {
        std::snprintf(text, sizeof text, "%d-%02d-%02dT%02d:%02d:%02d+00:00", 1970, 1, 1, 0, 0, 0);
        return text;
    }
    // Integer division truncates toward zero: -3:30 gives -3, and the minutes are dropped.
    const long hours = local.tm_gmtoff / 3600;
    // The year in a wider type: near the end of time_t's range tm_year + 1900 overflows an int.
    std::snprintf(text, sizeof text, "%lld-%02d-%02dT%02d:%02d:%02d%c%02ld:00",
                  static_cast<long long>(local.tm_year) + 1900, local.tm_mon + 1, local.tm_mday,
                  local.tm_hour, local.tm_min, local.tm_sec, hours < 0 ? '-' : '+',
                  hours < 0 ? -hours : hours);
    return text;
}

std::string package_format_time() {
    return format_time_stamp(std::time(nullptr));
}

}  // namespace pkgd

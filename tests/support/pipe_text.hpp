// Pipes holding a short text: a descriptor to pass along a message, whose far side can prove it
// got this very descriptor by reading the text back.
#pragma once

#include <unistd.h>

#include <string>
#include <string_view>

#include "ubus/fd.hpp"

namespace bus_test {

// The read end of a pipe that holds `text` and has no writer left.
inline ubus::UniqueFd pipe_holding(std::string_view text) {
    int p[2];
    if (::pipe(p) != 0) return {};
    ubus::UniqueFd rd(p[0]), wr(p[1]);
    if (::write(wr.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) return {};
    return rd;
}

// Everything readable from `fd` up to its end.
inline std::string read_all(int fd) {
    std::string text;
    char buf[256];
    for (ssize_t n; (n = ::read(fd, buf, sizeof buf)) > 0;) text.append(buf, static_cast<std::size_t>(n));
    return text;
}

}  // namespace bus_test

// Pipes for tests: a non-blocking pipe the test owns both ends of, and a descriptor to pass along
// a message whose far side can prove it got this very descriptor by reading the text back.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <string_view>

#include "ubus/fd.hpp"

namespace bus_test {

struct Pipe {
    ubus::UniqueFd r, w;
    Pipe() {
        int fds[2];
        if (::pipe2(fds, O_NONBLOCK | O_CLOEXEC) < 0) std::abort();
        r.reset(fds[0]);
        w.reset(fds[1]);
    }
    void put(std::string_view s) const {
        if (::write(w.get(), s.data(), s.size()) != static_cast<ssize_t>(s.size())) std::abort();
    }
    // Up to `n` bytes; "" when nothing is there (or at end of file).
    std::string take(std::size_t n = 4096) const {
        std::string buf(n, '\0');
        buf.resize(static_cast<std::size_t>(std::max<ssize_t>(::read(r.get(), buf.data(), n), 0)));
        return buf;
    }
};

// The read end of a pipe that holds `text` and has no writer left.
inline ubus::UniqueFd pipe_holding(std::string_view text) {
    Pipe p;
    p.put(text);
    return std::move(p.r);
}

// Everything readable from `fd` up to its end.
inline std::string read_all(int fd) {
    std::string text;
    char buf[256];
    for (ssize_t n; (n = ::read(fd, buf, sizeof buf)) > 0;) text.append(buf, static_cast<std::size_t>(n));
    return text;
}

}  // namespace bus_test

// A pipe owned by the test, both ends non-blocking.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "ubus/fd.hpp"

namespace ubus::testing {

struct Pipe {
    UniqueFd r, w;
    Pipe() {
        int fds[2];
        if (::pipe2(fds, O_NONBLOCK | O_CLOEXEC) < 0) std::abort();
        r.reset(fds[0]);
        w.reset(fds[1]);
    }
    void put(const std::string& s) const {
        if (::write(w.get(), s.data(), s.size()) != static_cast<ssize_t>(s.size())) std::abort();
    }
    // Up to `n` bytes; "" when nothing is there (or at end of file).
    std::string take(std::size_t n = 4096) const {
        std::string buf(n, '\0');
        buf.resize(static_cast<std::size_t>(std::max<ssize_t>(::read(r.get(), buf.data(), n), 0)));
        return buf;
    }
};

}  // namespace ubus::testing

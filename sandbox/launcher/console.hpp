// The launcher's messages to whoever started it: one line each, written at once (the launcher and
// its PID 1 share the stream, so nothing may sit in a buffer across fork).
#pragma once

#include <unistd.h>

#include <string>
#include <string_view>

namespace sandbox {

inline void say(int fd, std::string_view message) {
    std::string line = "pkgd-sandbox: ";
    line += message;
    line += '\n';
    [[maybe_unused]] auto ignored = ::write(fd, line.data(), line.size());
}
inline void say(std::string_view message) {
    say(STDOUT_FILENO, message);
}
inline void complain(std::string_view message) {
    say(STDERR_FILENO, message);
}

}  // namespace sandbox

#include <sys/wait.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "pkgd/platform.hpp"

namespace pkgd {

int SYSTEM(const char* fmt, ...) {
    char cmd[4096];
    va_list ap;
    va_start(ap, fmt);
    const int n = std::vsnprintf(cmd, sizeof cmd, fmt, ap);
    va_end(ap);
    // A cut command line could run something other than what was asked for.
    if (n < 0 || static_cast<std::size_t>(n) >= sizeof cmd) return -1;
    const int status = std::system(cmd);
    if (status == -1 || !WIFEXITED(status)) return -1;
    return WEXITSTATUS(status);
}

std::string shell_quote(std::string_view text) {
    std::string out;
    out.reserve(text.size() + 2);
    out += '\'';
    for (char c : text) {
        if (c == '\'')
            out += "'\\''";
        else
            out += c;
    }
    out += '\'';
    return out;
}

}  // namespace pkgd

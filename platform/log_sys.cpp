#include <syslog.h>

#include <cstdarg>
#include <cstdio>

#include "pkgd/platform.hpp"

namespace pkgd {

void log_sys(int level, int category, int, int, const char* fmt, ...) {
    char text[2048];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(text, sizeof text, fmt, ap);
    va_end(ap);
    // One record per call; openlog is implicit (ident = program name) unless the program set it.
    syslog(LOG_DAEMON | (level & LOG_PRIMASK), "[%d] %s", category, text);
}

}  // namespace pkgd

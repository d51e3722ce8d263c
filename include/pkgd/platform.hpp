// Stand-ins for the gateway's system-log and command-runner libraries.
#pragma once

#include <string>
#include <string_view>

namespace pkgd {

// Writes one syslog record at `level` (a syslog priority, e.g. 6 = info). The category is kept
// in the record as a "[category]" prefix of the text. The two reserved arguments are unused.
void log_sys(int level, int category, int reserved1, int reserved2, const char* fmt, ...)
    __attribute__((format(printf, 5, 6)));

// Formats a command line (at most 4095 characters) and runs it through /bin/sh. Returns the
// command's exit status, or -1 when it could not be run, was cut by the length limit, or ended
// by a signal. Callers quote request data with shell_quote().
int SYSTEM(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// `text` as one single-quoted shell word: 'it'\''s'.
std::string shell_quote(std::string_view text);

}  // namespace pkgd

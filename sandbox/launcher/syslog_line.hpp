// How one syslog record becomes one line of the sandbox's log file.
#pragma once

#include <string>
#include <string_view>

namespace sandbox {

// "<facility>.<severity> <text>" for a record as sent to /dev/log ("<PRI>text"). A record without
// a valid priority is taken whole, as user.notice (what syslog daemons assume). Trailing newlines
// and NULs are dropped; other control characters are escaped so that a record stays on one line.
std::string syslog_line(std::string_view record);

}  // namespace sandbox

// The time-stamp text of records, operations and results: local time with a whole-hour offset
// from UTC, as "2024-03-05T07:08:09+01:00".
#pragma once

#include <ctime>
#include <string>

namespace pkgd {

// The text of `when` in the local time zone (TZ). The offset's hours are truncated toward zero
// and its minutes are always 00 (UTC+5:30 gives +05:00, UTC-3:30 gives -03:00). A moment that
// cannot be converted to local time gives "1970-01-01T00:00:00+00:00".
std::string format_time_stamp(std::time_t when);

// The text of the current moment.
std::string package_format_time();

}  // namespace pkgd

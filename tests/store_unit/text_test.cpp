// Time stamps in several time zones.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <ctime>
#include <limits>

#include "pkgd/time_stamp.hpp"

namespace {

std::string stamp_in(const char* tz, std::time_t moment) {
    ::setenv("TZ", tz, 1);
    ::tzset();
    return pkgd::format_time_stamp(moment);
}

TEST(TimeStamp, LocalTimeWithItsWholeHourOffsetAndTheEpochWhenUnconvertible) {
    constexpr std::time_t kMarch5th2024At060809Utc = 1709618889;
    const std::pair<const char*, const char*> cases[] = {
        // POSIX form: the offset to add to local time to get UTC.
        {"UTC0", "2024-03-05T06:08:09+00:00"},        {"<+01>-1", "2024-03-05T07:08:09+01:00"},
        {"<-10>10", "2024-03-04T20:08:09-10:00"},     {"<+0530>-5:30", "2024-03-05T11:38:09+05:00"},
        {"<-0330>3:30", "2024-03-05T02:38:09-03:00"}, {"<-0030>0:30", "2024-03-05T05:38:09+00:00"},
        {"<+14>-14", "2024-03-05T20:08:09+14:00"},
    };
    for (const auto& [tz, text] : cases) EXPECT_EQ(stamp_in(tz, kMarch5th2024At060809Utc), text) << tz;
    // Only a 64-bit time_t reaches beyond the years a struct tm can hold.
    if constexpr (sizeof(std::time_t) > 4) {
        EXPECT_EQ(stamp_in("UTC0", std::numeric_limits<std::time_t>::max()), "1970-01-01T00:00:00+00:00");
    }
    EXPECT_EQ(stamp_in("UTC0", -1), "1969-12-31T23:59:59+00:00");
    ::unsetenv("TZ");
    ::tzset();
}

}  // namespace

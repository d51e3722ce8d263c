// Time stamps in several time zones, and the white-space skipper.
#include "pkgd/text.hpp"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <ctime>
#include <limits>
#include <optional>
#include <string>

#include "pkgd/time_stamp.hpp"

namespace {

using pkgd::format_time_stamp;

// Sets TZ for one test and puts the previous value back.
class ScopedTimeZone {
public:
    explicit ScopedTimeZone(const char* tz) {
        if (const char* old = ::getenv("TZ")) old_ = old;
        ::setenv("TZ", tz, 1);
        ::tzset();
    }
    ~ScopedTimeZone() {
        if (old_)
            ::setenv("TZ", old_->c_str(), 1);
        else
            ::unsetenv("TZ");
        ::tzset();
    }
    ScopedTimeZone(const ScopedTimeZone&) = delete;
    ScopedTimeZone& operator=(const ScopedTimeZone&) = delete;

private:
    std::optional<std::string> old_;
};

constexpr std::time_t kMarch5th2024At060809Utc = 1709618889;

TEST(TimeStamp, LocalTimeWithWholeHourOffset) {
    struct Case {
        const char* tz;  // POSIX form: the offset to add to local time to get UTC
        const char* text;
    };
    for (const Case& c : {
             Case{"UTC0", "2024-03-05T06:08:09+00:00"},
             Case{"<+01>-1", "2024-03-05T07:08:09+01:00"},
             Case{"<-10>10", "2024-03-04T20:08:09-10:00"},
             Case{"<+0530>-5:30", "2024-03-05T11:38:09+05:00"},
             Case{"<-0330>3:30", "2024-03-05T02:38:09-03:00"},
             Case{"<-0030>0:30", "2024-03-05T05:38:09+00:00"},
             Case{"<+14>-14", "2024-03-05T20:08:09+14:00"},
         }) {
        ScopedTimeZone zone(c.tz);
        EXPECT_EQ(format_time_stamp(kMarch5th2024At060809Utc), c.text) << c.tz;
    }
}

TEST(TimeStamp, UnconvertibleMomentFallsBackToTheEpoch) {
    ScopedTimeZone zone("UTC0");
    EXPECT_EQ(format_time_stamp(std::numeric_limits<std::time_t>::max()), "1970-01-01T00:00:00+00:00");
    EXPECT_EQ(format_time_stamp(-1), "1969-12-31T23:59:59+00:00");
}

TEST(SkipWhiteSpace, CountsOnlyLeadingBlanksWithinTheLength) {
    using pkgd::skip_white_space;
    EXPECT_EQ(skip_white_space(" \t\r\nabc"), 4u);
    EXPECT_EQ(skip_white_space(std::string_view(" \t \n", 3)), 3u);
    EXPECT_EQ(skip_white_space("\v\f x"), 0u);
    EXPECT_EQ(skip_white_space(std::string_view("  \0 ", 4)), 2u);
}

}  // namespace

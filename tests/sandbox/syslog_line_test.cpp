#include "syslog_line.hpp"

#include <gtest/gtest.h>

namespace sandbox {
namespace {

using namespace std::string_literals;

TEST(SyslogLine, PriorityBecomesNamesAndEachRecordOneLine) {
    const std::pair<std::string, std::string> cases[] = {
        {"<30>Nov 23 10:00:00 pkgd[4]: started", "daemon.info Nov 23 10:00:00 pkgd[4]: started\n"},
        {"<191>last", "local7.debug last\n"},
        {"<011>leading zero", "user.err leading zero\n"},
        // Without a valid priority the record is kept whole.
        {"plain text", "user.notice plain text\n"},
        {"<192>beyond local7", "user.notice <192>beyond local7\n"},
        {"<3x>letter", "user.notice <3x>letter\n"},
        // A trailing newline and NUL go; inner line breaks and controls are escaped, tabs kept.
        {"<14>with nul\n\0"s, "user.info with nul\n"},
        {"<14>two\nlines", "user.info two\\nlines\n"},
        {"<14>bell\a and\ttab", "user.info bell\\x07 and\ttab\n"},
        {"<14>in\0side"s, "user.info in\\x00side\n"},
    };
    for (const auto& [record, line] : cases) EXPECT_EQ(syslog_line(record), line) << record;
}

}  // namespace
}  // namespace sandbox

#include "syslog_line.hpp"

#include <gtest/gtest.h>

namespace sandbox {
namespace {

using namespace std::string_literals;

TEST(SyslogLine, PriorityBecomesFacilityAndSeverityNames) {
    EXPECT_EQ(syslog_line("<30>Nov 23 10:00:00 pkgd[4]: started"),
              "daemon.info Nov 23 10:00:00 pkgd[4]: started\n");
    EXPECT_EQ(syslog_line("<0>panic"), "kern.emerg panic\n");
    EXPECT_EQ(syslog_line("<191>last"), "local7.debug last\n");
    EXPECT_EQ(syslog_line("<011>leading zero"), "user.err leading zero\n");
    EXPECT_EQ(syslog_line("<13>"), "user.notice \n");
}

TEST(SyslogLine, RecordsWithoutAValidPriorityAreKeptWhole) {
    EXPECT_EQ(syslog_line("plain text"), "user.notice plain text\n");
    EXPECT_EQ(syslog_line("<192>beyond local7"), "user.notice <192>beyond local7\n");
    EXPECT_EQ(syslog_line("<1000>four digits"), "user.notice <1000>four digits\n");
    EXPECT_EQ(syslog_line("<>empty"), "user.notice <>empty\n");
    EXPECT_EQ(syslog_line("<3x>letter"), "user.notice <3x>letter\n");
    EXPECT_EQ(syslog_line("<30"), "user.notice <30\n");
    EXPECT_EQ(syslog_line(""), "user.notice \n");
}

TEST(SyslogLine, EachRecordStaysOnOneLine) {
    EXPECT_EQ(syslog_line("<14>failed for reason.\n"), "user.info failed for reason.\n");
    EXPECT_EQ(syslog_line("<14>with nul\n\0"s), "user.info with nul\n");
    EXPECT_EQ(syslog_line("<14>two\nlines"), "user.info two\\nlines\n");
    EXPECT_EQ(syslog_line("<14>bell\a and\ttab"), "user.info bell\\x07 and\ttab\n");
    EXPECT_EQ(syslog_line("<14>in\0side"s), "user.info in\\x00side\n");
}

}  // namespace
}  // namespace sandbox

// The pkgd status line is the contract between the launcher and whoever asks it (the fixture, the
// command line): it must survive the trip and refuse what the launcher never sends.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include "sandbox/control.hpp"

namespace sandbox {
namespace {

using State = PkgdStatus::State;

TEST(PkgdStatusLine, SurvivesTheTripForEveryState) {
    PkgdStatus exited{State::kExited, 42, 3, 255 << 8};
    EXPECT_EQ(format_pkgd_status(exited), "exited 42 3 exit:255");
    PkgdStatus killed{State::kRunning, 7, 2, SIGKILL};
    EXPECT_EQ(format_pkgd_status(killed), "running 7 2 signal:9");

    for (const PkgdStatus& original : {exited, killed, PkgdStatus{State::kIdle, 0, 0, std::nullopt},
                                       PkgdStatus{State::kAbsent, 0, 0, std::nullopt}}) {
        auto parsed = parse_pkgd_status(format_pkgd_status(original));
        ASSERT_TRUE(parsed) << format_pkgd_status(original);
        EXPECT_EQ(parsed->state, original.state);
        EXPECT_EQ(parsed->pid, original.pid);
        EXPECT_EQ(parsed->runs, original.runs);
        EXPECT_EQ(parsed->last_wait_status, original.last_wait_status);
    }
    auto parsed = parse_pkgd_status("exited 42 3 exit:255");
    ASSERT_TRUE(parsed);
    EXPECT_TRUE(parsed->exited_with(255));
    EXPECT_FALSE(parsed->killed_by(SIGKILL));
    parsed = parse_pkgd_status("exited 42 3 signal:9");
    ASSERT_TRUE(parsed);
    EXPECT_TRUE(parsed->killed_by(SIGKILL));
    EXPECT_FALSE(parsed->exited_with(0));
}

TEST(PkgdStatusLine, MalformedLinesAreRefused) {
    for (const char* bad :
         {"", "running", "running 1 2", "running 1 2 - extra", "sleeping 1 1 -", "running x 1 -",
          "running -4 1 -", "running 1 1x -", "exited 1 1 exit:256",
          "exited 1 1 exit:", "exited 1 1 signal:0", "exited 1 1 kill:9", "exited 1 1 exit9"}) {
        EXPECT_FALSE(parse_pkgd_status(bad)) << '"' << bad << '"';
    }
}

}  // namespace
}  // namespace sandbox

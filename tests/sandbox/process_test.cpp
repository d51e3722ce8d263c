// Waiting for a program whose children hold its output or that outlives its time limit.
#include "sandbox/process.hpp"

#include <gtest/gtest.h>
#include <signal.h>

#include <cstdlib>
#include <tuple>


namespace sandbox {
namespace {

using namespace std::chrono_literals;

SpawnSpec shell(const std::string& script) {
    SpawnSpec spec;
    spec.argv = {"/bin/sh", "-c", script};
    spec.env = environment_with({});
    return spec;
}

TEST(RunCommand, ReturnsWhenTheProgramEndsAndKillsItAfterItsTimeLimit) {
    // Its background child keeps the output open: the program's end is what counts.
    CommandResult r = run_command(shell("sleep 60 & echo $!; echo oops >&2; exit 3"), 30s);
    const pid_t background = std::atoi(r.out.c_str());
    ASSERT_GT(background, 0) << r.out;
    ::kill(background, SIGKILL);
    EXPECT_EQ(std::tuple(r.timed_out, r.exit_code, r.out, r.err),
              std::tuple(false, 3, std::to_string(background) + "\n", std::string("oops\n")));
    r = run_command(shell("echo before; exec sleep 60"), 200ms);
    EXPECT_EQ(std::tuple(r.timed_out, r.exit_code, r.out),
              std::tuple(true, 128 + SIGKILL, std::string("before\n")));
}

}  // namespace
}  // namespace sandbox

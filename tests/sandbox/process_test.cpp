// Starting programs: descriptor placement, and waiting for a program whose children hold its
// output or that outlives its time limit.
#include "sandbox/process.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <tuple>

#include "pipe_text.hpp"
#include "ubus/fd.hpp"

namespace sandbox {
namespace {

using namespace std::chrono_literals;

SpawnSpec shell(const std::string& script) {
    SpawnSpec spec;
    spec.argv = {"/bin/sh", "-c", script};
    spec.env = environment_with({});
    return spec;
}

TEST(Spawn, DescriptorsReachTheirNumbersEvenWhenTheyCross) {
    int a[2], b[2];
    ASSERT_EQ(::pipe2(a, O_CLOEXEC), 0);
    ASSERT_EQ(::pipe2(b, O_CLOEXEC), 0);
    ubus::UniqueFd a_read(a[0]), b_read(b[0]);
    // Two free single-digit descriptors (the shell's redirections take no more).
    std::vector<int> free_fds;
    for (int fd = 3; fd <= 9 && free_fds.size() < 2; ++fd)
        if (::fcntl(fd, F_GETFD) == -1) free_fds.push_back(fd);
    if (free_fds.size() < 2) GTEST_SKIP() << "no two free descriptors below 10";
    const int x = free_fds[0], y = free_fds[1];
    // Put the write ends at x and y, then ask for them swapped: placing one must not clobber the other.
    ASSERT_EQ(::dup3(a[1], x, O_CLOEXEC), x);
    ASSERT_EQ(::dup3(b[1], y, O_CLOEXEC), y);
    ::close(a[1]);
    ::close(b[1]);
    ubus::UniqueFd a_write(x), b_write(y);
    SpawnSpec spec = shell("echo to-a >&" + std::to_string(y) + "; echo to-b >&" + std::to_string(x));
    spec.extra_fds = {{x, y}, {y, x}};
    Spawned child = spawn(spec);
    ASSERT_TRUE(child) << child.error;
    a_write.reset();
    b_write.reset();
    EXPECT_EQ(wait_for_exit(child.pid, 10s), 0);
    EXPECT_EQ(bus_test::read_all(a_read.get()), "to-a\n");
    EXPECT_EQ(bus_test::read_all(b_read.get()), "to-b\n");
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

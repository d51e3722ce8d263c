// Starting programs: descriptor placement, failure reports, waiting and time limits.
#include "sandbox/process.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>

#include "ubus/fd.hpp"

namespace sandbox {
namespace {

using namespace std::chrono_literals;
using ubus::UniqueFd;

SpawnSpec shell(const std::string& script) {
    SpawnSpec spec;
    spec.argv = {"/bin/sh", "-c", script};
    spec.env = environment_with({});
    return spec;
}

std::string read_all(int fd) {
    std::string out;
    char buf[256];
    ssize_t n;
    while ((n = ::read(fd, buf, sizeof buf)) > 0) out.append(buf, static_cast<std::size_t>(n));
    return out;
}

TEST(Spawn, DescriptorsReachTheirNumbersEvenWhenTheyCross) {
    int a[2], b[2];
    ASSERT_EQ(::pipe2(a, O_CLOEXEC), 0);
    ASSERT_EQ(::pipe2(b, O_CLOEXEC), 0);
    UniqueFd a_read(a[0]), b_read(b[0]);
    // Two free single-digit descriptors (the shell's redirections take no more).
    std::vector<int> free_fds;
    for (int fd = 3; fd <= 9 && free_fds.size() < 2; ++fd) {
        if (::fcntl(fd, F_GETFD) == -1) free_fds.push_back(fd);
    }
    if (free_fds.size() < 2) GTEST_SKIP() << "no two free descriptors below 10";
    const int x = free_fds[0], y = free_fds[1];
    // Put the write ends at x and y, then ask for them swapped: placing one must not clobber the other.
    ASSERT_EQ(::dup3(a[1], x, O_CLOEXEC), x);
    ASSERT_EQ(::dup3(b[1], y, O_CLOEXEC), y);
    ::close(a[1]);
    ::close(b[1]);
    UniqueFd a_write(x), b_write(y);
    SpawnSpec spec = shell("echo to-a >&" + std::to_string(y) + "; echo to-b >&" + std::to_string(x));
    spec.extra_fds = {{x, y}, {y, x}};
    Spawned child = spawn(spec);
    ASSERT_TRUE(child) << child.error;
    a_write.reset();
    b_write.reset();
    EXPECT_EQ(wait_for_exit(child.pid, 10s), 0);
    EXPECT_EQ(read_all(a_read.get()), "to-a\n");
    EXPECT_EQ(read_all(b_read.get()), "to-b\n");
}

TEST(Spawn, FailuresBeforeTheProgramRunsAreReportedAsText) {
    SpawnSpec missing;
    missing.argv = {"no-such-program"};
    missing.search_path = "/nonexistent:/also-nonexistent";
    Spawned none = spawn(missing);
    EXPECT_FALSE(none);
    EXPECT_EQ(none.error, "cannot run no-such-program: No such file or directory");

    SpawnSpec bad_dir = shell("true");
    bad_dir.cwd = "/nonexistent-directory";
    Spawned nowhere = spawn(bad_dir);
    EXPECT_FALSE(nowhere);
    EXPECT_EQ(nowhere.error, "cannot change directory to /nonexistent-directory: No such file or directory");

    EXPECT_FALSE(spawn(SpawnSpec{}));
}

TEST(RunCommand, ReturnsWhenTheProgramEndsEvenIfItsChildrenHoldTheOutput) {
    CommandResult r = run_command(shell("sleep 60 & echo $!; echo oops >&2; exit 3"), 30s);
    pid_t background = 0;
    std::from_chars(r.out.data(), r.out.data() + r.out.size(), background);
    ASSERT_GT(background, 0) << r.out;
    ::kill(background, SIGKILL);
    EXPECT_FALSE(r.timed_out);
    EXPECT_EQ(r.exit_code, 3);
    EXPECT_EQ(r.out, std::to_string(background) + "\n");
    EXPECT_EQ(r.err, "oops\n");
}

TEST(RunCommand, KillsAProgramThatOutlivesItsTimeLimit) {
    CommandResult r = run_command(shell("echo before; exec sleep 60"), 200ms);
    EXPECT_TRUE(r.timed_out);
    EXPECT_EQ(r.exit_code, 128 + SIGKILL);
    EXPECT_EQ(r.out, "before\n");
}

TEST(Environment, OverridesReplaceAndRemovedNamesGo) {
    ::setenv("SANDBOX_TEST_KEEP", "1", 1);
    ::setenv("SANDBOX_TEST_DROP", "1", 1);
    ::setenv("SANDBOX_TEST_SET", "old", 1);
    auto env = environment_with({"SANDBOX_TEST_SET=new"}, {"SANDBOX_TEST_DROP"});
    auto count = [&](const std::string& entry) { return std::count(env.begin(), env.end(), entry); };
    EXPECT_EQ(count("SANDBOX_TEST_KEEP=1"), 1);
    EXPECT_EQ(count("SANDBOX_TEST_DROP=1"), 0);
    EXPECT_EQ(count("SANDBOX_TEST_SET=old"), 0);
    EXPECT_EQ(count("SANDBOX_TEST_SET=new"), 1);
}

}  // namespace
}  // namespace sandbox

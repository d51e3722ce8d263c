// Arguments reach the command unchanged and unexpanded, and run_command reports what ran.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "pkgd/platform.hpp"

namespace pkgd {
namespace {

std::string read_file(const std::string& path) {
    std::ifstream in(path);
    std::stringstream got;
    got << in.rdbuf();
    return got.str();
}

TEST(RunCommand, ArgumentsArriveUnchangedAndNothingIsInherited) {
    char dir[] = "/tmp/pkgd-run-XXXXXX";
    ASSERT_NE(::mkdtemp(dir), nullptr);
    const std::string out = std::string(dir) + "/out";
    // printf writes its one argument back exactly: anything a shell expanded would differ.
    for (const std::string text :
         {"plain", "it's", "a b  c", "$(touch x)", "`id`; rm -rf /x", "'\"\\\n", ""}) {
        SCOPED_TRACE(text);
        ASSERT_EQ(run_command({"sh", "-c", "printf %s \"$1\" > \"$2\"", "sh", text, out}), 0);
        EXPECT_EQ(read_file(out), text);
    }
    // Standard input is /dev/null, and a descriptor the caller holds open does not leak.
    const int held = ::open(out.c_str(), O_RDONLY);
    ASSERT_GE(held, 3);
    const std::string script =
        "cat > \"$1\"; [ -e /proc/self/fd/" + std::to_string(held) + " ] && echo leaked >> \"$1\"";
    ASSERT_EQ(run_command({"sh", "-c", script, "sh", out}), 1);
    EXPECT_EQ(read_file(out), "");
    ::close(held);
    std::remove(out.c_str());
    ::rmdir(dir);
}

TEST(RunCommand, ReportsTheExitStatusOrMinusOne) {
    EXPECT_EQ(run_command({"sh", "-c", "exit 3"}), 3);
    EXPECT_EQ(run_command({"true"}), 0);
    EXPECT_EQ(run_command({"sh", "-c", "kill -9 $$"}), -1);  // ended by a signal
    EXPECT_EQ(run_command({"/nonexistent/command"}), -1);
    EXPECT_EQ(run_command({}), -1);
    EXPECT_EQ(real_command_runner().run({"sh", "-c", "exit 4"}), 4);
    // A signal the caller blocks is not blocked in the command.
    sigset_t term, old;
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &term, &old);
    EXPECT_EQ(run_command({"sh", "-c", "kill -TERM $$; exit 0"}), -1);
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
}

}  // namespace
}  // namespace pkgd

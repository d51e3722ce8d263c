// Request data reaches the shell only as one quoted word, and SYSTEM reports what ran.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "pkgd/platform.hpp"

namespace pkgd {
namespace {

TEST(ShellQuote, HostileTextArrivesAsOneUnchangedArgument) {
    char dir[] = "/tmp/pkgd-quote-XXXXXX";
    ASSERT_NE(::mkdtemp(dir), nullptr);
    const std::string out = std::string(dir) + "/out";
    for (const std::string text : {"plain", "it's", "a b  c", "$(touch x)", "`id`; rm -rf /x", "'\"\\\n", ""}) {
        SCOPED_TRACE(text);
        // printf writes its one argument back exactly: anything the shell expanded would differ.
        ASSERT_EQ(SYSTEM("printf %%s %s > %s", shell_quote(text).c_str(), shell_quote(out).c_str()), 0);
        std::ifstream in(out);
        std::stringstream got;
        got << in.rdbuf();
        EXPECT_EQ(got.str(), text);
    }
    std::remove(out.c_str());
    ::rmdir(dir);
}

TEST(System, ReportsTheExitStatusAndRefusesACutCommandLine) {
    EXPECT_EQ(SYSTEM("exit %d", 3), 3);
    EXPECT_EQ(SYSTEM("true"), 0);
    EXPECT_EQ(SYSTEM("kill -9 $$"), -1);  // ended by a signal
    // A command line cut by the length limit could run something other than what was asked for.
    const std::string long_arg(5000, 'a');
    EXPECT_EQ(SYSTEM("true %s", long_arg.c_str()), -1);
}

}  // namespace
}  // namespace pkgd

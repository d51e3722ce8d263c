#include "daemon/start_options.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace pkgd {
namespace {

start_options parse(std::vector<std::string> args) {
    args.insert(args.begin(), "pkgd");
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    return parse_start_options(static_cast<int>(args.size()), argv.data());
}

TEST(StartOptions, RootIsTheLastRCutTo127CharactersAndDashFKeepsTheForeground) {
    EXPECT_TRUE(parse({}).root.empty());
    EXPECT_FALSE(parse({}).foreground);
    EXPECT_EQ(parse({"-r", "/a", "-r", "/b"}).root, "/b");
    EXPECT_EQ(parse({"-r/joined"}).root, "/joined");
    EXPECT_TRUE(parse({"-r", "/a", "-r", ""}).root.empty());
    const std::string long_root = "/" + std::string(200, 'd');
    EXPECT_EQ(parse({"-r", long_root}).root, long_root.substr(0, 127));

    testing::internal::CaptureStderr();
    const start_options o = parse({"operand", "-x", "-f", "-r", "/root", "more"});
    const std::string diagnostics = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(o.foreground);
    EXPECT_EQ(o.root, "/root");
    EXPECT_NE(diagnostics.find("-- 'x'"), std::string::npos) << diagnostics;
}

}  // namespace
}  // namespace pkgd

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include "sandbox/feed/index.hpp"
#include "sandbox/feed/package.hpp"
#include "sandbox/feed/pki.hpp"
#include "sandbox/feed/signature.hpp"

namespace {

using namespace sandbox::feed;
namespace fs = std::filesystem;

const Pki& pki() {
    static const Pki made = make_pki();
    return made;
}

constexpr const char* kControl =
    "Package: hello\nVersion: 1.2\nArchitecture: arm\nSection: utils\nDescription: says hello\n"
    " at length\n";

PackageSpec spec(Hostile hostile = Hostile::none, bool dot_slash = false) {
    PackageSpec s;
    s.control = kControl;
    s.tree = {directory_entry("usr"), directory_entry("usr/bin"), file_entry("usr/bin/hello", "#!/bin/sh\n", 0755),
              symlink_entry("usr/bin/hi", "hello")};
    s.scripts = {{"postinst", "#!/bin/sh\nexit 0\n"}};
    s.hostile = hostile;
    s.dot_slash_names = dot_slash;
    s.bomb_bytes = std::uint64_t{1} << 30;
    return s;
}

// The honest package and every hostile variant are checked by the gateway's own verifier in the
// engine's tests and installed by the package tool in its sandbox tests; what is left here is what
// no consumer looks at closely: the bomb's size and the names the feed tool takes.
TEST(FeedPackage, TheBombInflatesToItsSizeAndEveryVariantHasAName) {
    PackageSpec bomb = spec(Hostile::gzip_bomb);
    bomb.bomb_bytes = std::uint64_t{8} << 20;
    const Package pkg = build_package(bomb, pki());
    EXPECT_EQ(read_member(pkg.bytes, "data.tar.gz").size(), bomb.bomb_bytes);
    EXPECT_LT(pkg.bytes.size(), bomb.bomb_bytes / 500);
    for (Hostile kind : all_hostile()) EXPECT_EQ(parse_hostile(hostile_name(kind)), kind);
}

}  // namespace

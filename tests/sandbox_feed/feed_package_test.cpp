#include <gtest/gtest.h>

#include "sandbox/feed/package.hpp"
#include "sandbox/feed/pki.hpp"

namespace {

using namespace sandbox::feed;

// The honest package and every hostile variant are checked by the gateway's own verifier in the
// engine's tests and installed by the package tool in its sandbox tests; what is left here is what
// no consumer looks at closely: the bomb's size and the names the feed tool takes.
TEST(FeedPackage, TheBombInflatesToItsSizeAndEveryVariantHasAName) {
    PackageSpec bomb;
    bomb.control = "Package: hello\nVersion: 1.2\nArchitecture: arm\nDescription: says hello\n";
    bomb.hostile = Hostile::gzip_bomb;
    bomb.bomb_bytes = std::uint64_t{8} << 20;
    const Package pkg = build_package(bomb, make_pki());
    EXPECT_EQ(read_member(pkg.bytes, "data.tar.gz").size(), bomb.bomb_bytes);
    EXPECT_LT(pkg.bytes.size(), bomb.bomb_bytes / 500);
    for (Hostile kind : all_hostile()) EXPECT_EQ(parse_hostile(hostile_name(kind)), kind);
}

}  // namespace

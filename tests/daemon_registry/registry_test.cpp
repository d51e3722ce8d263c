// The registry's list without the bus: identifiers handed out, look-ups by object name.
#include <gtest/gtest.h>

#include <memory>

#include "daemon/package_registry.hpp"

namespace pkgd {
namespace {

void add(package_registry& registry, const std::string& id) {
    auto pkg = std::make_shared<pkg_info>();
    pkg->id = id;
    pkg->object_name = package_object_name("Packages", id);
    registry.link_front(std::move(pkg), static_cast<std::uint32_t>(registry.size() + 1));
}

TEST(PackageRegistry, FreeIdIsTheSmallestNumberNoIdentifierReadsAsGapsComingBack) {
    const std::pair<std::vector<std::string>, std::int32_t> cases[] = {
        {{}, 1},
        {{"1", "2", "3"}, 4},
        {{"2", "3"}, 1},
        {{"1", "3"}, 2},
        // Read as atoi reads: no digits is 0; leading zeros, blanks and a sign are fine; reading
        // stops at the first other character.
        {{"abc", "1"}, 2},
        {{"01", "2x"}, 3},
        {{" 1", "+2", "-3"}, 3},
        {{"99999999999999999999", "2"}, 1},
    };
    for (const auto& [ids, expected] : cases) {
        package_registry registry;
        for (const std::string& id : ids) add(registry, id);
        EXPECT_EQ(registry.free_id(), expected) << ::testing::PrintToString(ids);
    }

    package_registry registry;
    for (const char* id : {"1", "2", "3"}) add(registry, id);
    registry.unlink("Packages.2");
    registry.unlink("Packages.9");  // no such package: nothing changes
    EXPECT_EQ(registry.find_object("Packages.2"), nullptr);
    EXPECT_EQ(registry.free_id(), 2);
    add(registry, "2");
    std::vector<std::string> ids;
    for (const registered_pkg& entry : registry) ids.push_back(entry.pkg->id);
    EXPECT_EQ(ids, (std::vector<std::string>{"2", "3", "1"}));  // newest first
    EXPECT_EQ(registry.find_object("Packages.2")->pkg, registry.begin()->pkg);
}

}  // namespace
}  // namespace pkgd

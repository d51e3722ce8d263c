// The registry: identifiers handed out, and packages registered and removed together with their
// bus objects, or not at all.
#include "daemon/package_list.hpp"
#include "daemon/packages_object.hpp"
#include "daemon_fixture.hpp"

namespace daemon_test {
namespace {

void add(package_registry& registry, const std::string& id) {
    auto pkg = std::make_shared<pkg_info>();
    pkg->id = id;
    pkg->object_name = package_object_name("Packages", id);
    registry.link_front(std::move(pkg), static_cast<std::uint32_t>(registry.size() + 1));
}

std::vector<std::string> ids(const package_registry& registry) {
    std::vector<std::string> out;
    for (const registered_pkg& entry : registry) out.push_back(entry.pkg->id);
    return out;
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
    for (const auto& [given, expected] : cases) {
        package_registry registry;
        for (const std::string& id : given) add(registry, id);
        EXPECT_EQ(registry.free_id(), expected) << ::testing::PrintToString(given);
    }

    package_registry registry;
    for (const char* id : {"1", "2", "3"}) add(registry, id);
    registry.unlink("Packages.2");
    registry.unlink("Packages.9");  // no such package: nothing changes
    EXPECT_EQ(registry.find_object("Packages.2"), nullptr);
    EXPECT_EQ(registry.free_id(), 2);
    add(registry, "2");
    EXPECT_EQ(ids(registry), (std::vector<std::string>{"2", "3", "1"}));  // newest first
    EXPECT_EQ(registry.find_object("Packages.2")->pkg, registry.begin()->pkg);
}

using Registration = DaemonTest;

TEST_F(Registration, ARefusedObjectLeavesTheRegistryAsItWas) {
    ASSERT_TRUE(add_pkg(d_, "1"));
    EXPECT_FALSE(add_pkg(d_, "1"));  // registered already
    // The broker refuses a name another client holds.
    ubus::Connection squatter;
    ASSERT_EQ(squatter.connect(broker_.socket()), ubus::kOk);
    ASSERT_EQ(squatter.add_object(object_of("2"), ubus::ObjectType::make({})).status, ubus::kOk);
    EXPECT_FALSE(add_pkg(d_, "2"));
    EXPECT_EQ(ids(d_.s_pkgs), std::vector<std::string>{"1"});
    EXPECT_EQ(free_id(d_), 2);

    // A broker gone cannot remove the object: the package stays, still reached by its name.
    broker_.stop();
    del_pkg(d_, object_of("1"));
    EXPECT_EQ(ids(d_.s_pkgs), std::vector<std::string>{"1"});
    EXPECT_TRUE(d_.s_pkgs.find_object(object_of("1")));
}

TEST_F(Registration, AListingBeyondTheBusMessageSizeEndsTheCallWithStatus9) {
    ASSERT_EQ(add_package_object(d_).status, ubus::kOk);
    for (const char* id : {"1", "2", "3"}) {
        auto pkg = std::make_shared<pkg_info>(installed_package(id, 1));
        pkg->du.description = std::string(400 * 1024, 'd');
        pkg->object_name = object_of(id);
        d_.s_pkgs.link_front(std::move(pkg), 0);
    }
    EXPECT_EQ(call(kPackages, "List", R"({"Limit":2})").first, ubus::kOk);
    EXPECT_EQ(call(kPackages, "List"), std::pair(int{ubus::kUnknownError}, std::string()));
}

}  // namespace
}  // namespace daemon_test

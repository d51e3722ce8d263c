// The simulated LCM catalog: which environments "catalog.get" answers with, and the entries
// "catalog.update" and "catalog.delete" keep.
#include <gtest/gtest.h>

#include "sim_client.hpp"

namespace sandbox_sim {
namespace {

using Replies = std::vector<std::string>;

constexpr std::string_view kGetAll = R"({"Type":"ExecutionEnvironment"})";

std::string get_by_name(std::string_view name) {
    return R"({"Type":"ExecutionEnvironment","Filters":{"Name":")" + std::string(name) + R"("}})";
}

TEST(SimCatalog, GetAnswersEachMatchingEnvironmentWithOnlyItsConfiguredFields) {
    const std::string long_version(300, 'v');
    const std::string with_id =
        R"({"id":"7","name":"lxc-a","enabled":false,"version":"2.0","vendor":"Acme","type":"LXC"})";
    const std::string without_id = R"({"name":"lxc-b","version":")" + long_version + R"("})";
    auto options = sim_gateway();
    options.simulator_config = R"({"environments":[)" + with_id + "," + without_id + R"(,{"id":"9"}]})";
    sandbox::Gateway gw(options);
    ASSERT_TRUE(gw.up()) << gw.error();
    SimClient bus(gw);

    Answer a = bus.call(kCatalog, "catalog.get", get_by_name("lxc-b"));
    EXPECT_EQ(a.status, 0);
    EXPECT_EQ(a.replies, Replies{without_id});

    a = bus.call(kCatalog, "catalog.get", get_by_name("lxc-a"));
    EXPECT_EQ(a.replies, Replies{with_id});

    a = bus.call(kCatalog, "catalog.get", get_by_name("nosuch"));
    EXPECT_EQ(a.status, 0);
    EXPECT_TRUE(a.replies.empty());

    // Without a filter every environment answers, the nameless one too.
    a = bus.call(kCatalog, "catalog.get", kGetAll);
    EXPECT_EQ(a.replies, (Replies{with_id, without_id, R"({"id":"9"})"}));

    // Only environments are answered from the configuration.
    a = bus.call(kCatalog, "catalog.get", R"({"Type":"DeploymentUnit"})");
    EXPECT_EQ(a.status, 0);
    EXPECT_TRUE(a.replies.empty());
    EXPECT_EQ(bus.call(kCatalog, "catalog.get", R"({"Filters":{"Name":"lxc-a"}})").status,
              ubus::kInvalidArgument);

    EXPECT_EQ(
        state_of(gw, "requests"),
        R"([{"peer":"catalog","object":"Services.Management.LCM.ExecutionEnvironments","method":"catalog.get",)"
        R"("data":{"Type":"ExecutionEnvironment","Filters":{"Name":"lxc-b"}}},)"
        R"({"peer":"catalog","object":"Services.Management.LCM.ExecutionEnvironments","method":"catalog.get",)"
        R"("data":{"Type":"ExecutionEnvironment","Filters":{"Name":"lxc-a"}}},)"
        R"({"peer":"catalog","object":"Services.Management.LCM.ExecutionEnvironments","method":"catalog.get",)"
        R"("data":{"Type":"ExecutionEnvironment","Filters":{"Name":"nosuch"}}},)"
        R"({"peer":"catalog","object":"Services.Management.LCM.ExecutionEnvironments","method":"catalog.get",)"
        R"("data":{"Type":"ExecutionEnvironment"}},)"
        R"({"peer":"catalog","object":"Services.Management.LCM.ExecutionEnvironments","method":"catalog.get",)"
        R"("data":{"Type":"DeploymentUnit"}},)"
        R"({"peer":"catalog","object":"Services.Management.LCM.ExecutionEnvironments","method":"catalog.get",)"
        R"("data":{"Filters":{"Name":"lxc-a"}}}])");
}

TEST(SimCatalog, ConfigureReplacesTheEnvironmentsAndTheirServiceManagers) {
    sandbox::Gateway gw(sim_gateway());
    ASSERT_TRUE(gw.up()) << gw.error();
    SimClient bus(gw);
    EXPECT_EQ(
        bus.call(kCatalog, "catalog.get", kGetAll).replies,
        Replies{
            R"({"id":"1","name":"System","enabled":true,"version":"1.0","vendor":"Sandbox","type":"Native"})"});
    EXPECT_TRUE(bus.has_object(kSystemServices));

    ASSERT_TRUE(gw.sim_configure(R"({"environments":[{"name":"lxc-a"},{"name":"lxc-b"},{"name":"lxc-a"}]})"));
    EXPECT_EQ(bus.call(kCatalog, "catalog.get", get_by_name("lxc-b")).replies,
              Replies{R"({"name":"lxc-b"})"});
    EXPECT_FALSE(bus.has_object(kSystemServices));
    EXPECT_TRUE(bus.has_object("Services.Management.LCM.ExecutionEnvironments.lxc-a.Services"));
    EXPECT_TRUE(bus.has_object("Services.Management.LCM.ExecutionEnvironments.lxc-b.Services"));

    // A mistaken configuration changes nothing.
    for (std::string_view bad :
         {R"({"environments":[{"Name":"x"}]})", R"({"environments":[{"enabled":"yes"}]})",
          R"({"environments":["x"]})", R"({"environment":[]})"}) {
        EXPECT_FALSE(gw.sim_configure(bad)) << bad;
    }
    EXPECT_EQ(bus.call(kCatalog, "catalog.get", kGetAll).replies.size(), 3u);
    EXPECT_TRUE(bus.has_object("Services.Management.LCM.ExecutionEnvironments.lxc-b.Services"));
}

TEST(SimCatalog, UpdateAndDeleteKeepEntriesUnderTheirOwnSpellingOfTheIndex) {
    sandbox::Gateway gw(sim_gateway());
    ASSERT_TRUE(gw.up()) << gw.error();
    SimClient bus(gw);
    EXPECT_EQ(bus.call(kCatalog, "catalog.update",
                       R"({"Type":"DeploymentUnit","index":3,"extra":{"Name":"a","Version":"1"}})")
                  .status,
              0);
    EXPECT_EQ(
        bus.call(kCatalog, "catalog.update", R"({"Type":"ExecutionUnit","index":12,"extra":{"Name":"u"}})")
            .status,
        0);
    EXPECT_EQ(bus.call(kCatalog, "catalog.update", R"({"Type":"ExecutionUnit","index":2,"extra":{}})").status,
              0);
    // A second update replaces the entry's members.
    EXPECT_EQ(bus.call(kCatalog, "catalog.update",
                       R"({"Type":"DeploymentUnit","index":3,"extra":{"Name":"a","Version":"2"}})")
                  .status,
              0);
    EXPECT_EQ(
        state_of(gw, "catalog"),
        R"({"DeploymentUnit":{"3":{"Name":"a","Version":"2"}},"ExecutionUnit":{"2":{},"12":{"Name":"u"}}})");

    // Each message has its own spelling; with the other one it has no index.
    EXPECT_EQ(
        bus.call(kCatalog, "catalog.update", R"({"Type":"DeploymentUnit","Index":4,"extra":{}})").status,
        ubus::kInvalidArgument);
    EXPECT_EQ(bus.call(kCatalog, "catalog.delete", R"({"Type":"DeploymentUnit","index":3})").status,
              ubus::kInvalidArgument);
    EXPECT_EQ(bus.call(kCatalog, "catalog.delete", R"({"Type":"ExecutionUnit","Index":12})").status, 0);
    EXPECT_EQ(bus.call(kCatalog, "catalog.delete", R"({"Type":"ExecutionUnit","Index":12})").status,
              ubus::kNotFound);
    EXPECT_EQ(bus.call(kCatalog, "catalog.delete", R"({"Type":"ExecutionUnit","Index":2})").status, 0);
    EXPECT_EQ(state_of(gw, "catalog"), R"({"DeploymentUnit":{"3":{"Name":"a","Version":"2"}}})");
}

}  // namespace
}  // namespace sandbox_sim

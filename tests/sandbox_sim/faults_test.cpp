// The simulator's faults: peers taken off the bus, answering too late, or refusing; switched at
// start-up or through the control object.
#include <gtest/gtest.h>

#include "sim_client.hpp"

namespace sandbox_sim {
namespace {

constexpr std::string_view kGetAll = R"({"Type":"ExecutionEnvironment"})";
constexpr std::string_view kAddDu = R"({"pid":1,"InternetGatewayDevice.SoftwareModules.DeploymentUnit.":{}})";

TEST(SimFaults, AbsentTakesAPeersObjectsOffTheBusUntilNormal) {
    sandbox::Gateway gw(sim_gateway());
    ASSERT_TRUE(gw.up()) << gw.error();
    SimClient bus(gw);
    ASSERT_TRUE(gw.set_fault("catalog", "absent"));
    EXPECT_EQ(bus.call(kCatalog, "catalog.get", kGetAll).status, ubus::kNotFound);
    EXPECT_EQ(bus.call(kDataModel, "commit").status, 0);
    ASSERT_TRUE(gw.set_fault("catalog", "normal"));
    EXPECT_EQ(bus.call(kCatalog, "catalog.get", kGetAll).replies.size(), 1u);

    // The service managers stay away while the environments change, and come back as configured.
    ASSERT_TRUE(gw.set_fault("services", "absent"));
    EXPECT_FALSE(bus.has_object(kSystemServices));
    ASSERT_TRUE(gw.sim_configure(R"({"environments":[{"name":"lxc-a"}]})"));
    EXPECT_FALSE(bus.has_object("Services.Management.LCM.ExecutionEnvironments.lxc-a.Services"));
    ASSERT_TRUE(gw.set_fault("services", "normal"));
    EXPECT_TRUE(bus.has_object("Services.Management.LCM.ExecutionEnvironments.lxc-a.Services"));
    EXPECT_FALSE(bus.has_object(kSystemServices));

    EXPECT_FALSE(gw.set_fault("catalogue", "absent"));
    EXPECT_FALSE(gw.set_fault("catalog", "gone"));
    EXPECT_FALSE(gw.set_fault("catalog", "slow", -1));
}

TEST(SimFaults, SlowHoldsTheAnswerBackWhileEverythingElseIsServed) {
    sandbox::Gateway gw(sim_gateway());
    ASSERT_TRUE(gw.up()) << gw.error();
    SimClient bus(gw);
    SimClient other(gw);
    ASSERT_TRUE(gw.set_fault("datamodel", "slow"));
    EXPECT_EQ(bus.call(kDataModel, "add", kAddDu, 1000).status, ubus::kTimeout);
    // The held answer is seconds away yet: a simulator that slept through them would miss these.
    EXPECT_EQ(other.call(kCatalog, "catalog.get", kGetAll, 2000).status, 0);
    const Answer state = other.call("Sandbox.GatewaySim", "state", "{}", 2000);
    ASSERT_EQ(state.status, 0);
    EXPECT_NE(state.replies.at(0).find(R"("method":"add")"), std::string::npos) << state.replies.at(0);

    // A held answer arrives whole once its delay has passed.
    ASSERT_TRUE(gw.set_fault("datamodel", "slow", 300));
    const Answer late = bus.call(kDataModel, "add", R"({"pid":1,"A.":{}})", 5000);
    EXPECT_EQ(late.status, 0);
    EXPECT_EQ(late.replies, std::vector<std::string>{R"({"A.":{"1":true}})"});
}

TEST(SimFaults, RefuseAnswersWithTheStatusAloneAndDoesNothing) {
    auto options = sim_gateway();
    options.prepare = [](const std::filesystem::path& root) {
        write_script(root / "etc/init.d/alpha", "echo started > /tmp/marker");
    };
    sandbox::Gateway gw(options);
    ASSERT_TRUE(gw.up()) << gw.error();
    SimClient bus(gw);
    ASSERT_TRUE(gw.set_fault("catalog", "refuse"));
    const Answer refused = bus.call(kCatalog, "catalog.get", kGetAll);
    EXPECT_EQ(refused.status, ubus::kPermissionDenied);
    EXPECT_TRUE(refused.replies.empty());
    EXPECT_EQ(
        bus.call(kCatalog, "catalog.update", R"({"Type":"DeploymentUnit","index":1,"extra":{}})").status,
        ubus::kPermissionDenied);
    EXPECT_EQ(state_of(gw, "catalog"), "{}");

    ASSERT_TRUE(gw.set_fault("services", "refuse", ubus::kNotFound));
    EXPECT_EQ(bus.call(kSystemServices, "operate", R"({"Operation":"start","name":["alpha"]})").status,
              ubus::kNotFound);
    EXPECT_FALSE(std::filesystem::exists(gw.path("/tmp/marker")));
    ASSERT_TRUE(gw.set_fault("services", "normal"));
    EXPECT_EQ(bus.call(kSystemServices, "operate", R"({"Operation":"start","name":["alpha"]})").status, 0);
    EXPECT_TRUE(std::filesystem::exists(gw.path("/tmp/marker")));
}

TEST(SimFaults, FaultsGivenAtStartHoldBeforeAnyClientArrives) {
    auto options = sim_gateway();
    options.simulator_faults = {"catalog=absent", "datamodel=refuse:5"};
    sandbox::Gateway gw(options);
    ASSERT_TRUE(gw.up()) << gw.error();
    SimClient bus(gw);
    EXPECT_FALSE(bus.has_object(kCatalog));
    EXPECT_EQ(bus.call(kDataModel, "commit").status, 5);
    EXPECT_TRUE(bus.has_object(kSystemServices));
}

TEST(SimFaults, ABadStartOptionKeepsTheGatewayDown) {
    auto bad_fault = sim_gateway();
    bad_fault.simulator_faults = {"catalog=sleepy"};
    auto bad_config = sim_gateway();
    bad_config.simulator_config = R"({"environments":[{"id":1}]})";
    for (const auto& options : {bad_fault, bad_config}) {
        sandbox::Gateway gw(options);
        EXPECT_FALSE(gw.up());
        EXPECT_NE(gw.error().find("simulator"), std::string::npos) << gw.error();
    }
}

}  // namespace
}  // namespace sandbox_sim

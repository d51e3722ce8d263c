// The simulated CWMP data-model agent: instance numbers, deletes, parameters, commits, and the
// control object's reset of what it holds.
#include <gtest/gtest.h>

#include "sim_client.hpp"

namespace sandbox_sim {
namespace {

using Replies = std::vector<std::string>;

constexpr std::string_view kDu = "InternetGatewayDevice.SoftwareModules.DeploymentUnit.";
constexpr std::string_view kEu = "InternetGatewayDevice.SoftwareModules.ExecutionUnit.";

std::string add_message(std::string_view path) {
    return R"({"pid":42,")" + std::string(path) + R"(":{}})";
}
std::string added(std::string_view path, int instance) {
    return R"({")" + std::string(path) + R"(":{")" + std::to_string(instance) + R"(":true}})";
}

TEST(SimDataModel, AddNumbersInstancesPerObjectPathAndDelDropsThem) {
    sandbox::Gateway gw(sim_gateway());
    ASSERT_TRUE(gw.up()) << gw.error();
    SimClient bus(gw);
    Answer a = bus.call(kDataModel, "add", add_message(kDu));
    EXPECT_EQ(a.status, 0);
    EXPECT_EQ(a.replies, Replies{added(kDu, 1)});
    EXPECT_EQ(bus.call(kDataModel, "add", add_message(kDu)).replies, Replies{added(kDu, 2)});
    EXPECT_EQ(bus.call(kDataModel, "add", add_message(kEu)).replies, Replies{added(kEu, 1)});
    EXPECT_EQ(bus.call(kDataModel, "add", add_message(kDu)).replies, Replies{added(kDu, 3)});

    const std::string del_1_3 = R"({"pid":42,")" + std::string(kDu) + R"(":["1","3"]})";
    EXPECT_EQ(bus.call(kDataModel, "del", del_1_3).status, 0);
    // Numbers are never handed out twice.
    EXPECT_EQ(bus.call(kDataModel, "add", add_message(kDu)).replies, Replies{added(kDu, 4)});
    EXPECT_EQ(state_of(gw, "datamodel"), R"({"instances":{")" + std::string(kDu) + R"(":[2,4],")" +
                                             std::string(kEu) + R"(":[1]},"params":{},"commits":0})");

    // An instance that is not there is reported; a malformed number deletes nothing.
    EXPECT_EQ(bus.call(kDataModel, "del", R"({"pid":42,")" + std::string(kDu) + R"(":["2","9"]})").status,
              ubus::kNotFound);
    EXPECT_EQ(bus.call(kDataModel, "del", R"({"pid":42,")" + std::string(kDu) + R"(":["4","x"]})").status,
              ubus::kInvalidArgument);
    EXPECT_EQ(bus.call(kDataModel, "add", R"({"pid":42})").status, ubus::kInvalidArgument);
    EXPECT_EQ(state_of(gw, "datamodel"), R"({"instances":{")" + std::string(kDu) + R"(":[4],")" +
                                             std::string(kEu) + R"(":[1]},"params":{},"commits":0})");
}

TEST(SimDataModel, SetKeepsParametersCommitsAreCountedAndResetForgets) {
    sandbox::Gateway gw(sim_gateway());
    ASSERT_TRUE(gw.up()) << gw.error();
    SimClient bus(gw);
    const std::string set_7 =
        R"({"object":{"InternetGatewayDevice.SoftwareModules.ExecutionUnit.7.AutoStart":"0"}})";
    EXPECT_EQ(bus.call(kDataModel, "set", set_7).status, 0);
    EXPECT_EQ(bus.call(kDataModel, "set", R"({"object":{"A.B":"1","A.C":"x"}})").status, 0);
    EXPECT_EQ(bus.call(kDataModel, "set", R"({"object":{"A.B":"2"}})").status, 0);
    EXPECT_EQ(bus.call(kDataModel, "set", R"({"A.B":"3"})").status, ubus::kInvalidArgument);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(bus.call(kDataModel, "commit").status, 0);
    EXPECT_EQ(bus.call(kDataModel, "add", add_message(kEu)).replies, Replies{added(kEu, 1)});
    EXPECT_EQ(
        state_of(gw, "datamodel"),
        R"({"instances":{")" + std::string(kEu) +
            R"(":[1]},"params":{"A.B":"2","A.C":"x","InternetGatewayDevice.SoftwareModules.ExecutionUnit.7.AutoStart":"0"},"commits":3})");
    const std::string requests = state_of(gw, "requests");
    EXPECT_NE(
        requests.find(R"({"peer":"datamodel","object":"v1.DataModel","method":"set","data":)" + set_7 + "}"),
        std::string::npos)
        << requests;

    // A plain reset forgets the requests only; a full one the data model too.
    ASSERT_TRUE(gw.sim_reset());
    EXPECT_EQ(state_of(gw, "requests"), "[]");
    EXPECT_NE(state_of(gw, "datamodel").find(R"("commits":3)"), std::string::npos);
    ASSERT_TRUE(gw.sim_reset(true));
    EXPECT_EQ(state_of(gw, "datamodel"), R"({"instances":{},"params":{},"commits":0})");
    EXPECT_EQ(bus.call(kDataModel, "add", add_message(kEu)).replies, Replies{added(kEu, 1)});
}

}  // namespace
}  // namespace sandbox_sim

// Which instance the agent's answer to "add" names.
#include <gtest/gtest.h>

#include <cstdint>
#include <string_view>

#include "pkgd/datamodel.hpp"
#include "ubus/json.hpp"

namespace {

std::int32_t read_reply(std::string_view json, std::int32_t before = 0) {
    ubus::BlobBuf reply;
    EXPECT_TRUE(ubus::json_load(reply, json)) << json;
    std::int32_t result = before;
    pkgd::_req_cwmp_add_node_cb(reply.members(), result);
    return result;
}

TEST(AddReply, FirstTrueMemberOfAnInstanceTableNamesTheInstance) {
    EXPECT_EQ(read_reply(R"({"InternetGatewayDevice.SoftwareModules.DeploymentUnit.":{"3":true}})"), 3);
    EXPECT_EQ(
        read_reply(
            R"({"InternetGatewayDevice.SoftwareModules.DeploymentUnit.":{"2":false,"5":true,"8":true}})"),
        5);
    // Any of the three tables counts, whichever object was asked for.
    EXPECT_EQ(read_reply(R"({"InternetGatewayDevice.SoftwareModules.ExecEnv.":{"7":true}})"), 7);
    EXPECT_EQ(read_reply(R"({"pid":9,"InternetGatewayDevice.SoftwareModules.ExecutionUnit.":{"12":true}})"),
              12);
    // A table without a true member does not end the search.
    EXPECT_EQ(read_reply(R"({"InternetGatewayDevice.SoftwareModules.ExecEnv.":{"1":false},)"
                         R"("InternetGatewayDevice.SoftwareModules.ExecutionUnit.":{"4":true}})"),
              4);
}

TEST(AddReply, RepliesWithoutANewInstanceLeaveTheResultAlone) {
    const std::string_view none[] = {
        R"({})",
        R"({"ok":{"3":true}})",
        R"({"InternetGatewayDevice.SoftwareModules.DeploymentUnit":{"3":true}})",   // no trailing dot
        R"({"InternetGatewayDevice.SoftwareModules.DeploymentUnit.":["3",true]})",  // not a table
        R"({"InternetGatewayDevice.SoftwareModules.DeploymentUnit.":{"3":1,"4":"true","5":false}})",
        R"({"InternetGatewayDevice.SoftwareModules.DeploymentUnit.":{"6":{"7":true}}})",
        R"({"3":true})",
    };
    for (const std::string_view json : none) {
        EXPECT_EQ(read_reply(json), 0) << json;
        EXPECT_EQ(read_reply(json, 42), 42) << json;
    }
}

TEST(AddReply, OnlyTheValueOneIsTrue) {
    ubus::BlobBuf reply;
    const auto table = reply.open_table(pkgd::kDeploymentUnitPath);
    reply.add_u8("3", 2);
    reply.add_i16("4", 1);
    reply.add_u8("5", 1);
    reply.close(table);
    std::int32_t result = 0;
    pkgd::_req_cwmp_add_node_cb(reply.members(), result);
    EXPECT_EQ(result, 5);
}

TEST(AddReply, ANameThatIsNoInstanceNumberGivesZeroAndEndsTheSearch) {
    for (const std::string_view name : {"abc", "-4", "0", "12x", " 3", "4294967297", "2147483648"}) {
        ubus::BlobBuf reply;
        const auto table = reply.open_table(pkgd::kExecutionUnitPath);
        reply.add_bool(name, true);
        reply.add_bool("9", true);
        reply.close(table);
        std::int32_t result = 42;
        pkgd::_req_cwmp_add_node_cb(reply.members(), result);
        EXPECT_EQ(result, 0) << name;
    }
}

TEST(AddReply, TruncatedRepliesAreReadOnlyAsFarAsTheyGo) {
    ubus::BlobBuf reply;
    ASSERT_TRUE(ubus::json_load(
        reply, R"({"x":"padding","InternetGatewayDevice.SoftwareModules.ExecEnv.":{"2147483647":true}})"));
    const ubus::Bytes whole = reply.members();
    std::int32_t result = 0;
    pkgd::_req_cwmp_add_node_cb(whole, result);
    EXPECT_EQ(result, 2147483647);
    for (std::size_t n = 0; n < whole.size(); ++n) {
        result = 0;
        pkgd::_req_cwmp_add_node_cb(whole.first(n), result);
        EXPECT_EQ(result, 0) << n;
    }
}

}  // namespace

// Which instance the agent's answer to "add" names.
#include <gtest/gtest.h>

#include <cstdint>
#include <string_view>

#include "pkgd/datamodel.hpp"
#include "ubus/json.hpp"

namespace {

std::int32_t read_reply(ubus::Bytes reply, std::int32_t before) {
    pkgd::_req_cwmp_add_node_cb(reply, before);
    return before;
}

TEST(AddReply, TheFirstTrueMemberOfAnInstanceTableNamesTheInstance) {
    constexpr std::string_view kDu = R"("InternetGatewayDevice.SoftwareModules.DeploymentUnit.")";
    const std::pair<std::string, std::int32_t> cases[] = {
        {R"({"InternetGatewayDevice.SoftwareModules.DeploymentUnit.":{"3":true}})", 3},
        {R"({"InternetGatewayDevice.SoftwareModules.DeploymentUnit.":{"2":false,"5":true,"8":true}})", 5},
        // Any of the three tables counts, whichever object was asked for; one without a true
        // member does not end the search.
        {R"({"pid":9,"InternetGatewayDevice.SoftwareModules.ExecutionUnit.":{"12":true}})", 12},
        {R"({"InternetGatewayDevice.SoftwareModules.ExecEnv.":{"1":false},)"
         R"("InternetGatewayDevice.SoftwareModules.ExecutionUnit.":{"4":true}})", 4},
        // Replies without a new instance leave the result alone.
        {R"({})", 42},
        {R"({"3":true})", 42},
        {R"({"InternetGatewayDevice.SoftwareModules.DeploymentUnit":{"3":true}})", 42},  // no trailing dot
        {"{" + std::string(kDu) + R"(:["3",true]})", 42},                                // not a table
        {"{" + std::string(kDu) + R"(:{"3":1,"4":"true","5":false}})", 42},
        // Names read like atoi: what reads as zero or less is no instance, gives 0 and ends the search.
        {"{" + std::string(kDu) + R"(:{"abc":true,"9":true}})", 0},
        {"{" + std::string(kDu) + R"(:{"12x":true,"9":true}})", 12},
        {"{" + std::string(kDu) + R"(:{"4294967297":true}})", 2147483647},
    };
    for (const auto& [json, expected] : cases) {
        ubus::BlobBuf reply;
        ASSERT_TRUE(ubus::json_load(reply, json)) << json;
        EXPECT_EQ(read_reply(reply.members(), 42), expected) << json;
    }
}

TEST(AddReply, OnlyTheValueOneIsTrueAndTruncatedRepliesAreReadOnlyAsFarAsTheyGo) {
    ubus::BlobBuf reply;
    const auto table = reply.open_table(pkgd::kDeploymentUnitPath);
    reply.add_u8("3", 2);
    reply.add_i16("4", 1);
    reply.add_u8("5", 1);
    reply.close(table);
    EXPECT_EQ(read_reply(reply.members(), 0), 5);

    ubus::BlobBuf padded;
    ASSERT_TRUE(ubus::json_load(
        padded, R"({"x":"padding","InternetGatewayDevice.SoftwareModules.ExecEnv.":{"2147483647":true}})"));
    const ubus::Bytes whole = padded.members();
    EXPECT_EQ(read_reply(whole, 0), 2147483647);
    for (std::size_t n = 0; n < whole.size(); ++n) EXPECT_EQ(read_reply(whole.first(n), 0), 0) << n;
}

}  // namespace

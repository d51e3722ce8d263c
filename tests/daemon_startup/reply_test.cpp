// The reply envelope every method of pkgd's objects answers in, and the execution environment's
// "Get" body.
#include <gtest/gtest.h>

#include <algorithm>

#include "daemon/ee_object.hpp"
#include "daemon/reply_envelope.hpp"
#include "ubus/json.hpp"

namespace pkgd {
namespace {

std::string envelope(std::int32_t result, ubus::Attr body) {
    ubus::BlobBuf reply;
    reply.add_string("left", "over");  // whatever the buffer held before is dropped
    hlapi_reply(result, body, reply);
    return ubus::json_format(reply);
}

TEST(ReplyEnvelope, HeaderNamesTheOutcomeAndTheBodyFollowsOnlyWhenGiven) {
    EXPECT_EQ(envelope(HLAPI_OK, {}), R"({"Header":{"Name":"OK"}})");
    EXPECT_EQ(envelope(HLAPI_ARGUMENT_VALUE_NOT_SUPPORTED, {}),
              R"({"Header":{"Name":"ARGUMENT_VALUE_NOT_SUPPORTED"}})");
    EXPECT_EQ(envelope(HLAPI_OK, ubus::BlobBuf().root()), R"({"Header":{"Name":"OK"},"Body":{}})");
    // Results outside the table give an empty table.
    ubus::BlobBuf body;
    body.add_string("Id", "1");
    for (std::int32_t result : {-1, 12, 1000}) EXPECT_EQ(envelope(result, body.root()), "{}") << result;
}

TEST(ReplyEnvelope, BodyIsCopiedByteForByteInItsOrder) {
    ubus::BlobBuf body;
    const auto list = body.open_array("List");
    for (const char* id : {"3", "1", "2"}) {
        const auto t = body.open_table("");
        body.add_string("Id", id);
        body.add_u8("Enabled", 2);  // a byte that is not 0 or 1 survives as it is
        body.close(t);
    }
    body.close(list);
    body.add_i32("Limit", 0);
    body.add_double("Usage", 0.5);
    ubus::BlobBuf reply;
    hlapi_reply(HLAPI_OK, body.root(), reply);
    const std::vector<ubus::Attr> top(reply.root().children().begin(), reply.root().children().end());
    ASSERT_EQ(top.size(), 2u);
    EXPECT_EQ(top[1].name(), "Body");
    EXPECT_EQ(top[1].type(), ubus::Type::Table);
    EXPECT_TRUE(std::ranges::equal(top[1].data(), body.members()));
}

TEST(EeGetBody, FieldsInOrderWithUsageAFractionAndZeroWithoutATotal) {
    ee_identity ee;
    ee.id = "2";
    ee.name = "lxc-a";
    ee.enabled = 1;
    ee.version = "1.4";
    ee.vendor = "Acme";
    ee.type = "LXC";
    ubus::BlobBuf body;
    ee_get_body(body, ee, {1000, 250}, {0, 0});
    // true only for a BOOL, six decimals only for a DOUBLE.
    EXPECT_EQ(ubus::json_format(body),
              R"({"Id":"2","Name":"lxc-a","Enabled":true,"Version":"1.4","Vendor":"Acme","Type":"LXC",)"
              R"("Resources":{"Memory":{"Total":1000,"Free":250,"Usage":0.750000},)"
              R"("Storage":{"Total":0,"Free":0,"Usage":0.000000}},"Status":"Active"})");
    EXPECT_DOUBLE_EQ(resource_usage({0, 5}), 0.0);
    // Large figures are not computed in 32-bit arithmetic.
    EXPECT_DOUBLE_EQ(resource_usage({2147483647, -2147483647 - 1}), 4294967295.0 / 2147483647.0);
}

}  // namespace
}  // namespace pkgd

#include <gtest/gtest.h>

#include <string>

#include "daemon/ee_object.hpp"
#include "ubus/json.hpp"

namespace pkgd {
namespace {

ee_identity sample_identity(std::int32_t enabled) {
    ee_identity ee;
    ee.id = "2";
    ee.name = "lxc-a";
    ee.enabled = enabled;
    ee.version = "1.4";
    ee.vendor = "Acme";
    ee.type = "LXC";
    return ee;
}

// The JSON form shows the wire types too: true only for a BOOL, six decimals only for a DOUBLE.
TEST(EeGetBody, FieldsInOrderWithUsageFromEachPair) {
    ubus::BlobBuf body;
    ee_get_body(body, sample_identity(1), {1000, 250}, {0, 0});
    EXPECT_EQ(ubus::json_format(body),
              R"({"Id":"2","Name":"lxc-a","Enabled":true,"Version":"1.4","Vendor":"Acme","Type":"LXC",)"
              R"("Resources":{"Memory":{"Total":1000,"Free":250,"Usage":0.750000},)"
              R"("Storage":{"Total":0,"Free":0,"Usage":0.000000}},"Status":"Active"})");
}

TEST(EeGetBody, UsageIsAFractionAndZeroWithoutATotal) {
    EXPECT_DOUBLE_EQ(resource_usage({1000, 250}), 0.75);
    EXPECT_DOUBLE_EQ(resource_usage({0, 0}), 0.0);
    EXPECT_DOUBLE_EQ(resource_usage({0, 5}), 0.0);
    // Large figures are not computed in 32-bit arithmetic.
    EXPECT_DOUBLE_EQ(resource_usage({2147483647, -2147483647 - 1}), 4294967295.0 / 2147483647.0);
}

}  // namespace
}  // namespace pkgd

// The objects pkgd serves from start-up, called through the bus: the execution environment's
// "Get" with live figures, and the advertised methods of the Packages and package-operation
// objects, whose handlers are not there yet.
#include <gtest/gtest.h>
#include <sys/statvfs.h>

#include <fstream>
#include <regex>

#include "gateway_client.hpp"
#include "ubus/json.hpp"

namespace {

constexpr std::string_view kPackages = "Services.Management.LCM.ExecutionEnvironments.System.Packages";
constexpr std::string_view kOperations = "SoftwareModules.Package.System";
constexpr std::string_view kEnvironment = "Services.Management.LCM.ExecutionEnvironments.System";

// The reply with each value replaced by its wire type (3 STRING, 5 INT32, 7 BOOL, 8 DOUBLE).
std::string wire_types(ubus::Bytes reply) {
    ubus::JsonFormat types;
    types.element_hook = [](ubus::Attr a, std::string& out) {
        if (a.type() == ubus::Type::Table || a.type() == ubus::Type::Array) return false;
        out += std::to_string(static_cast<int>(a.type()));
        return true;
    };
    std::string json;
    ubus::json_format_list(json, reply, false, types);
    return json;
}

TEST(ServedObjects, EnvironmentGetReportsIdentityAndLiveFiguresAndTheOthersAdvertiseTheirMethods) {
    auto options = gwtest::named_gateway();
    options.pkgd = true;
    sandbox::Gateway gw(options);
    ASSERT_TRUE(gw.up()) << gw.error();
    gwtest::Client probe(gw);
    ASSERT_TRUE(probe.wait_for_object(kEnvironment));

    const gwtest::Reply r = probe.call(kEnvironment, "Get");
    ASSERT_EQ(r.status, ubus::kOk);
    ASSERT_EQ(r.data.size(), 1u);
    EXPECT_EQ(
        wire_types(r.data[0]),
        R"({"Header":{"Name":3},"Body":{"Id":3,"Name":3,"Enabled":7,"Version":3,"Vendor":3,"Type":3,)"
        R"("Resources":{"Memory":{"Total":5,"Free":5,"Usage":8},"Storage":{"Total":5,"Free":5,"Usage":8}},)"
        R"("Status":3}})");
    // Live figures: the host's memory and the root's file system (counted in 4 kB blocks).
    std::ifstream meminfo("/proc/meminfo");
    std::string key;
    long long mem_total = 0;
    meminfo >> key >> mem_total;
    struct statvfs vfs {};
    ASSERT_EQ(statvfs(gw.root().c_str(), &vfs), 0);
    for (const auto& [name, total] :
         {std::pair{"Memory", mem_total}, {"Storage", static_cast<long long>(vfs.f_blocks * 4)}}) {
        const std::regex figures(std::string("\"") + name + "\":\\{\"Total\":" + std::to_string(total) +
                                 R"(,"Free":[1-9]\d*,"Usage":0\.\d{6}\})");
        EXPECT_TRUE(std::regex_search(r.first(), figures)) << r.first();
    }

    const std::string list_args =
        R"({"Limit":5,"Offset":5,"Filters.Id":3,"Filters.UUID":3,"Filters.Name":3,"Filters.Enabled":7,)"
        R"("Filters.Vendor":3,"Filters.Version":3,"Filters.License":3,"Filters.Architecture":3,"Filters.Status":3})";
    const std::string install_args =
        R"({"Id":3,"UUID":3,"Source.Protocol":3,"Source.Address":3,"Source.Port":5,"Source.Resource":3,)"
        R"("Source.Credentials.Username":3,"Source.Credentials.Password":3,"DisableAutoStart":7})";
    EXPECT_EQ(probe.signature(kPackages), R"({"List":)" + list_args + R"(,"get":)" + list_args +
                                              R"(,"Install":)" + install_args + R"(,"add":)" + install_args +
                                              "}");
    const std::string operation_args =
        R"({"RequestID":5,"OperateID":5,"URL":3,"Username":3,"Password":3,"ExecutionEnvRef":3,"Version":3,)"
        R"("UUID":3,"OperateMID":5,"OperateDUID":5,"Time":3})";
    EXPECT_EQ(probe.signature(kOperations),
              R"({"Install":)" + operation_args + R"(,"Update":)" + operation_args + R"(,"Uninstall":)" +
                  operation_args +
                  R"(,"List":{"Filters":2},"Cancel":{"RequestID":5,"OperateID":5,"OperateMID":5}})");
    EXPECT_EQ(probe.signature(kEnvironment), R"({"Get":{}})");

    // Handlers not built yet say "not supported", without a reply.
    const std::pair<std::string_view, const char*> unsupported[] = {
        {kPackages, "Install"},     {kPackages, "add"},    {kOperations, "Install"}, {kOperations, "Update"},
        {kOperations, "Uninstall"}, {kOperations, "List"}, {kOperations, "Cancel"}};
    for (const auto& [object, method] : unsupported) {
        const gwtest::Reply none = probe.call(object, method);
        EXPECT_EQ(none.status, ubus::kNotSupported) << object << " " << method;
        EXPECT_TRUE(none.json.empty()) << object << " " << method;
    }
    // Methods that do not exist are the bus's business, answered as such.
    EXPECT_EQ(probe.call(kEnvironment, "Set").status, ubus::kMethodNotFound);
}

}  // namespace

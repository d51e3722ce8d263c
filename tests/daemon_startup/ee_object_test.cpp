// The objects pkgd serves from start-up, called through the bus: the execution environment's
// "Get" with live figures, and the advertised methods of the Packages and package-operation
// objects, whose handlers are not there yet.
#include <gtest/gtest.h>
#include <sys/statvfs.h>

#include <fstream>
#include <string>
#include <vector>

#include "bus_probe.hpp"
#include "ubus/wire.hpp"

namespace pkgd::testing {
namespace {

constexpr std::string_view kPackages = "Services.Management.LCM.ExecutionEnvironments.System.Packages";
constexpr std::string_view kOperations = "SoftwareModules.Package.System";
constexpr std::string_view kEnvironment = "Services.Management.LCM.ExecutionEnvironments.System";

std::vector<ubus::Attr> members(ubus::Bytes payload) {
    ubus::AttrList list(payload);
    return {list.begin(), list.end()};
}

std::int64_t host_mem_total_kb() {
    std::ifstream in("/proc/meminfo");
    std::string key;
    std::int64_t value = 0;
    in >> key >> value;
    return key == "MemTotal:" ? value : -1;
}

class ServingGateway : public ::testing::Test {
protected:
    void SetUp() override {
        gw_.emplace(pkgd_gateway());
        ASSERT_TRUE(gw_->up()) << gw_->error();
        probe_.emplace(*gw_);
        ASSERT_TRUE(probe_->wait_for_object(kEnvironment));
    }
    std::optional<sandbox::Gateway> gw_;
    std::optional<BusProbe> probe_;
};

TEST_F(ServingGateway, EnvironmentGetReportsIdentityAndLiveFiguresInTheEnvelope) {
    const CallResult r = probe_->call(kEnvironment, "Get");
    ASSERT_EQ(r.status, ubus::kOk);
    ASSERT_EQ(r.replies.size(), 1u);
    // Without EXECENV_INDEX: "System", not enabled, nothing known about it.
    EXPECT_TRUE(
        r.json.starts_with(R"({"Header":{"Name":"OK"},"Body":{"Id":"System","Name":"System",)"
                           R"("Enabled":false,"Version":"","Vendor":"","Type":"","Resources":{"Memory":{)"))
        << r.json;
    EXPECT_TRUE(r.json.ends_with(R"(}},"Status":"Active"}})")) << r.json;

    const auto top = members(r.replies[0]);
    ASSERT_EQ(top.size(), 2u);
    const auto body = members(top[1].data());
    ASSERT_EQ(body.size(), 8u);
    EXPECT_EQ(body[2].type(), ubus::Type::Bool);
    const auto resources = members(body[6].data());
    ASSERT_EQ(resources.size(), 2u);

    struct statvfs vfs {};
    ASSERT_EQ(statvfs(gw_->root().c_str(), &vfs), 0);
    const std::int64_t expected_total[] = {host_mem_total_kb(), static_cast<std::int64_t>(vfs.f_blocks * 4)};
    for (std::size_t i = 0; i < resources.size(); ++i) {
        SCOPED_TRACE(std::string(resources[i].name()));
        const auto f = members(resources[i].data());
        ASSERT_EQ(f.size(), 3u);
        ASSERT_EQ(f[0].type(), ubus::Type::Int32);
        ASSERT_EQ(f[1].type(), ubus::Type::Int32);
        ASSERT_EQ(f[2].type(), ubus::Type::Double);
        const double total = f[0].as_i32();
        const double free = f[1].as_i32();
        EXPECT_EQ(f[0].as_i32(), expected_total[i]);
        EXPECT_GT(free, 0);
        EXPECT_LE(free, total);
        EXPECT_DOUBLE_EQ(f[2].as_double(), (total - free) / total);
    }
}

TEST_F(ServingGateway, ObjectsAdvertiseTheirFullMethodTables) {
    const std::string list_args =
        R"({"Limit":5,"Offset":5,"Filters.Id":3,"Filters.UUID":3,"Filters.Name":3,"Filters.Enabled":7,)"
        R"("Filters.Vendor":3,"Filters.Version":3,"Filters.License":3,"Filters.Architecture":3,"Filters.Status":3})";
    const std::string install_args =
        R"({"Id":3,"UUID":3,"Source.Protocol":3,"Source.Address":3,"Source.Port":5,"Source.Resource":3,)"
        R"("Source.Credentials.Username":3,"Source.Credentials.Password":3,"DisableAutoStart":7})";
    EXPECT_EQ(probe_->signature(kPackages), R"({"List":)" + list_args + R"(,"get":)" + list_args +
                                                R"(,"Install":)" + install_args + R"(,"add":)" +
                                                install_args + "}");

    const std::string operation_args =
        R"({"RequestID":5,"OperateID":5,"URL":3,"Username":3,"Password":3,"ExecutionEnvRef":3,"Version":3,)"
        R"("UUID":3,"OperateMID":5,"OperateDUID":5,"Time":3})";
    EXPECT_EQ(probe_->signature(kOperations),
              R"({"Install":)" + operation_args + R"(,"Update":)" + operation_args + R"(,"Uninstall":)" +
                  operation_args +
                  R"(,"List":{"Filters":2},"Cancel":{"RequestID":5,"OperateID":5,"OperateMID":5}})");

    EXPECT_EQ(probe_->signature(kEnvironment), R"({"Get":{}})");
}

TEST_F(ServingGateway, MethodsNotBuiltYetSayNotSupportedWithoutAReply) {
    for (const char* method : {"Install", "add"}) {
        const CallResult r = probe_->call(kPackages, method);
        EXPECT_EQ(r.status, ubus::kNotSupported) << method;
        EXPECT_TRUE(r.replies.empty()) << method;
    }
    for (const char* method : {"Install", "Update", "Uninstall", "List", "Cancel"}) {
        const CallResult r = probe_->call(kOperations, method);
        EXPECT_EQ(r.status, ubus::kNotSupported) << method;
        EXPECT_TRUE(r.replies.empty()) << method;
    }
    // Methods that do not exist are the bus's business, answered as such.
    EXPECT_EQ(probe_->call(kEnvironment, "Set").status, ubus::kMethodNotFound);
}

}  // namespace
}  // namespace pkgd::testing

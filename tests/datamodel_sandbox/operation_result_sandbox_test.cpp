// The operation-result event as a listener on the bus receives it, for each kind of operation and
// outcome.
#include <chrono>
#include <memory>
#include <regex>
#include <string>

#include "gateway_fixture.hpp"
#include "pkgd/datamodel.hpp"
#include "ubus/client.hpp"
#include "ubus/json.hpp"

namespace datamodel_sandbox {
namespace {

using namespace std::chrono_literals;

// Listens from the host for result events and keeps each as compact JSON.
class ResultListener {
public:
    explicit ResultListener(const sandbox::Gateway& gw) {
        EXPECT_EQ(bus_.connect(gw.socket_path().string()), ubus::kOk);
        const auto added =
            bus_.listen(pkgd::kOperationResultEvent, [this](std::string_view type, ubus::Bytes data) {
                EXPECT_EQ(type, pkgd::kOperationResultEvent);
                std::string json;
                ubus::json_format_list(json, data, false);
                events_.push_back(std::move(json));
            });
        EXPECT_EQ(added.status, ubus::kOk);
    }

    // The events received once `count` have arrived, or when 10 s have passed without them.
    const std::vector<std::string>& wait_for(std::size_t count) {
        const auto deadline = std::chrono::steady_clock::now() + 10s;
        while (events_.size() < count && std::chrono::steady_clock::now() < deadline) bus_.dispatch(100);
        return events_;
    }

private:
    ubus::Connection bus_;
    std::vector<std::string> events_;
};

pkgd::operation_info operation(std::int32_t type, std::initializer_list<std::int32_t> units) {
    auto pkg = std::make_shared<pkgd::pkg_info>();
    pkg->du.index = 2;
    pkg->du.uuid = "400b6402-f0dd-5feb-9bef-d9a39a3181de";
    pkg->du.version = "2.0";
    pkg->du.resolved = 1;
    for (const auto index : units) pkg->eu.push_back(pkgd::eu_info{.index = index, .euid = {}, .name = {}});
    pkgd::operation_info op;
    op.request_id = 21;
    op.operate_id = 22;
    op.operate_mid = 23;
    op.type = type;
    op.time = "2024-03-05T07:00:00+00:00";
    op.pkg = std::move(pkg);
    return op;
}

// The completion time is the moment of sending: checked for its form, then left out.
std::string without_complete_time(const std::string& json) {
    static const std::regex kComplete(R"(,"CompleteTime":"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d[+-]\d\d:00"\})");
    std::string rest = std::regex_replace(json, kComplete, "}");
    EXPECT_NE(rest, json) << "no well-formed CompleteTime at the end: " << json;
    return rest;
}

using OperationResults = GatewayTest;

TEST_F(OperationResults, ListenersReceiveOneEventPerOperationWithItsOutcome) {
    ResultListener listener(gateway());
    inside([](std::string&) {
        pkgd::package_response2lcm(operation(pkgd::OPERATION_INSTALL, {5, 6}), pkgd::kFaultNone);
        pkgd::package_response2lcm(operation(pkgd::OPERATION_INSTALL, {5}), pkgd::kFaultAlreadyInstalled);
        pkgd::package_response2lcm(operation(pkgd::OPERATION_UPDATE, {}), pkgd::kFaultNone);
        pkgd::package_response2lcm(operation(pkgd::OPERATION_UPDATE, {7}), pkgd::kFaultNoResources);
        pkgd::package_response2lcm(operation(pkgd::OPERATION_REMOVE, {7}), pkgd::kFaultNone);
        pkgd::package_response2lcm(operation(pkgd::OPERATION_REMOVE, {}), pkgd::kFaultRequestDenied.code,
                                   std::nullopt);
        return 0;
    });
    const std::string ids = R"({"RequestID":21,"OperateID":22,"OperateMID":23,)"
                            R"("UUID":"400b6402-f0dd-5feb-9bef-d9a39a3181de",)";
    const std::string unit = R"("Version":"2.0","DeploymentUnitRef":"InternetGatewayDevice.SoftwareModules.)"
                             R"(DeploymentUnit.2.","Resolved":true,)";
    const std::string start = R"("StartTime":"2024-03-05T07:00:00+00:00"})";
    const std::vector<std::string> expected = {
        ids + unit +
            R"("ExecutionUnitRefList":"InternetGatewayDevice.SoftwareModules.ExecutionUnit.5.,)"
            R"(InternetGatewayDevice.SoftwareModules.ExecutionUnit.6.",)"
            R"("CurrentStatus":"Installed","FaultCode":0,"Fault":"","OperationPerformed":"Install",)" +
            start,
        ids +
            R"("CurrentStatus":"Failed","FaultCode":9026,"Fault":"Deployment Unit had already installed on )"
            R"(the same Execution Environment","OperationPerformed":"Install",)" +
            start,
        ids + unit +
            R"("CurrentStatus":"Installed","FaultCode":0,"Fault":"","OperationPerformed":"Update",)" + start,
        ids +
            R"("CurrentStatus":"Installed","FaultCode":9027,"Fault":"No more system resource",)"
            R"("OperationPerformed":"Update",)" +
            start,
        ids + unit + R"("ExecutionUnitRefList":"InternetGatewayDevice.SoftwareModules.ExecutionUnit.7.",)" +
            R"("CurrentStatus":"Uninstalled","FaultCode":0,"Fault":"","OperationPerformed":"Uninstall",)" +
            start,
        ids + R"("CurrentStatus":"Installed","FaultCode":9001,"OperationPerformed":"Uninstall",)" + start,
    };
    const std::vector<std::string>& received = listener.wait_for(expected.size());
    ASSERT_EQ(received.size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i)
        EXPECT_EQ(without_complete_time(received[i]), expected[i]) << i;
}

}  // namespace
}  // namespace datamodel_sandbox

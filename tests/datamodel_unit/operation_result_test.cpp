// The fields of the operation-result event for each kind of operation and outcome.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "pkgd/datamodel.hpp"
#include "ubus/json.hpp"

namespace {

using namespace pkgd;

operation_info operation(std::int32_t type, const std::vector<std::int32_t>& units) {
    auto pkg = std::make_shared<pkg_info>();
    pkg->du.index = 2;
    pkg->du.uuid = "400b6402-f0dd-5feb-9bef-d9a39a3181de";
    pkg->du.version = "2.0";
    pkg->du.resolved = 1;
    for (const auto index : units) pkg->eu.push_back(eu_info{.index = index, .euid = {}, .name = {}});
    operation_info op;
    op.request_id = 21;
    op.operate_id = 22;
    op.operate_mid = 23;
    op.type = type;
    op.time = "2024-03-05T07:00:00+00:00";
    op.pkg = std::move(pkg);
    return op;
}

std::string result_json(const operation_info& op, std::int32_t code, std::optional<std::string_view> text) {
    ubus::BlobBuf msg;
    if (!operation_result_message(msg, op, code, text, "2024-03-05T07:08:09+01:00")) return "nothing";
    return ubus::json_format(msg);
}

TEST(OperationResult, FieldsFollowTheOperationAndItsOutcome) {
    const std::string ids =
        R"({"RequestID":21,"OperateID":22,"OperateMID":23,"UUID":"400b6402-f0dd-5feb-9bef-d9a39a3181de",)";
    const std::string unit = R"("Version":"2.0","DeploymentUnitRef":"InternetGatewayDevice.SoftwareModules.)"
                             R"(DeploymentUnit.2.","Resolved":true,)";
    const std::string times =
        R"("StartTime":"2024-03-05T07:00:00+00:00","CompleteTime":"2024-03-05T07:08:09+01:00"})";
    const std::string done = R"("FaultCode":0,"Fault":"",)";
    const std::tuple<std::int32_t, std::vector<std::int32_t>, cwmp_fault, std::string> cases[] = {
        {OPERATION_INSTALL, {5, 6}, kFaultNone,
         ids + unit + R"("ExecutionUnitRefList":"InternetGatewayDevice.SoftwareModules.ExecutionUnit.5.,)"
                      R"(InternetGatewayDevice.SoftwareModules.ExecutionUnit.6.","CurrentStatus":"Installed",)" +
             done + R"("OperationPerformed":"Install",)" + times},
        // A failure carries no unit fields.
        {OPERATION_INSTALL, {5}, kFaultAlreadyInstalled,
         ids + R"("CurrentStatus":"Failed","FaultCode":9026,"Fault":"Deployment Unit had already installed on )"
               R"(the same Execution Environment","OperationPerformed":"Install",)" + times},
        // No units, no list.
        {OPERATION_UPDATE, {}, kFaultNone,
         ids + unit + R"("CurrentStatus":"Installed",)" + done + R"("OperationPerformed":"Update",)" + times},
        {OPERATION_UPDATE, {7}, kFaultNoResources,
         ids + R"("CurrentStatus":"Installed","FaultCode":9027,"Fault":"No more system resource",)"
               R"("OperationPerformed":"Update",)" + times},
        {OPERATION_REMOVE, {7}, kFaultNone,
         ids + unit + R"("ExecutionUnitRefList":"InternetGatewayDevice.SoftwareModules.ExecutionUnit.7.",)" +
             R"("CurrentStatus":"Uninstalled",)" + done + R"("OperationPerformed":"Uninstall",)" + times},
        {OPERATION_REMOVE, {}, kFaultRequestDenied,
         ids + R"("CurrentStatus":"Installed","FaultCode":9001,"Fault":"Request denied",)"
               R"("OperationPerformed":"Uninstall",)" + times},
    };
    for (const auto& [type, units, fault, json] : cases)
        EXPECT_EQ(result_json(operation(type, units), fault.code, fault.text), json)
            << type << " " << fault.code;
    // "Fault" only when given.
    EXPECT_EQ(
        result_json(operation(OPERATION_REMOVE, {}), 9001, std::nullopt),
        ids + R"("CurrentStatus":"Installed","FaultCode":9001,"OperationPerformed":"Uninstall",)" + times);
    // Nothing without a package or for an unknown operation.
    EXPECT_EQ(result_json(operation_info{}, 0, ""), "nothing");
    EXPECT_EQ(result_json(operation(3, {}), 0, ""), "nothing");
    EXPECT_EQ(result_json(operation(-1, {}), 9001, "Request denied"), "nothing");
}

TEST(OperationResult, UnitReferenceListIsCutAtItsBound) {
    auto op = operation(OPERATION_UPDATE, {});
    std::string full;
    for (std::int32_t index = 1000000; index < 1000100; ++index) {
        op.pkg->eu.push_back(eu_info{.index = index, .euid = {}, .name = {}});
        full += (full.empty() ? "" : ",") + std::string(kExecutionUnitPath) + std::to_string(index) + '.';
    }
    ASSERT_GT(full.size(), kUnitRefListMax);
    const std::string json = result_json(op, 0, "");
    EXPECT_NE(json.find(R"("ExecutionUnitRefList":")" + full.substr(0, kUnitRefListMax) + "\","),
              std::string::npos);
}

}  // namespace

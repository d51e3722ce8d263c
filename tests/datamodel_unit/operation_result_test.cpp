// The fields of the operation-result event for each kind of operation and outcome.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "pkgd/datamodel.hpp"
#include "ubus/json.hpp"

namespace {

constexpr std::string_view kDone = "2024-03-05T07:08:09+01:00";

pkgd::operation_info operation(std::int32_t type, std::initializer_list<std::int32_t> units = {}) {
    auto pkg = std::make_shared<pkgd::pkg_info>();
    pkg->du.index = 2;
    pkg->du.uuid = "43e59cb0-d70e-598c-a3c9-3f0a8960e463";
    pkg->du.version = "1.2-3";
    pkg->du.resolved = 1;
    for (const auto index : units) pkg->eu.push_back(pkgd::eu_info{.index = index, .euid = {}, .name = {}});
    pkgd::operation_info op;
    op.request_id = 11;
    op.operate_id = 12;
    op.operate_mid = 13;
    op.type = type;
    op.time = "2024-03-05T07:00:00+01:00";
    op.pkg = std::move(pkg);
    return op;
}

std::string result_json(const pkgd::operation_info& op, std::int32_t code,
                        std::optional<std::string_view> text) {
    ubus::BlobBuf msg;
    if (!pkgd::operation_result_message(msg, op, code, text, kDone)) return "nothing";
    return ubus::json_format(msg);
}

TEST(OperationResult, SuccessfulInstallReportsTheUnitAndItsExecutionUnits) {
    EXPECT_EQ(
        result_json(operation(pkgd::OPERATION_INSTALL, {5, 6}), pkgd::kFaultNone.code, pkgd::kFaultNone.text),
        R"({"RequestID":11,"OperateID":12,"OperateMID":13,)"
        R"("UUID":"43e59cb0-d70e-598c-a3c9-3f0a8960e463","Version":"1.2-3",)"
        R"("DeploymentUnitRef":"InternetGatewayDevice.SoftwareModules.DeploymentUnit.2.","Resolved":true,)"
        R"("ExecutionUnitRefList":"InternetGatewayDevice.SoftwareModules.ExecutionUnit.5.,)"
        R"(InternetGatewayDevice.SoftwareModules.ExecutionUnit.6.",)"
        R"("CurrentStatus":"Installed","FaultCode":0,"Fault":"","OperationPerformed":"Install",)"
        R"("StartTime":"2024-03-05T07:00:00+01:00","CompleteTime":"2024-03-05T07:08:09+01:00"})");

    EXPECT_EQ(result_json(operation(pkgd::OPERATION_INSTALL), 0, "").find("ExecutionUnitRefList"),
              std::string::npos);
}

TEST(OperationResult, FailureCarriesNoUnitFields) {
    const auto op = operation(pkgd::OPERATION_INSTALL, {5});
    EXPECT_EQ(
        result_json(op, pkgd::kFaultFileCorrupted.code, pkgd::kFaultFileCorrupted.text),
        R"({"RequestID":11,"OperateID":12,"OperateMID":13,"UUID":"43e59cb0-d70e-598c-a3c9-3f0a8960e463",)"
        R"("CurrentStatus":"Failed","FaultCode":9018,"Fault":"File corrupted or otherwise unusable",)"
        R"("OperationPerformed":"Install","StartTime":"2024-03-05T07:00:00+01:00",)"
        R"("CompleteTime":"2024-03-05T07:08:09+01:00"})");
}

TEST(OperationResult, StatusAndNameFollowTheOperationAndOutcome) {
    struct Case {
        std::int32_t type;
        std::int32_t code;
        std::string_view status;
        std::string_view performed;
    };
    const Case cases[] = {
        {pkgd::OPERATION_INSTALL, 0, "Installed", "Install"},
        {pkgd::OPERATION_INSTALL, pkgd::kFaultNoResources.code, "Failed", "Install"},
        {pkgd::OPERATION_UPDATE, 0, "Installed", "Update"},
        {pkgd::OPERATION_UPDATE, pkgd::kFaultDownloadFailed.code, "Installed", "Update"},
        {pkgd::OPERATION_REMOVE, 0, "Uninstalled", "Uninstall"},
        {pkgd::OPERATION_REMOVE, pkgd::kFaultRequestDenied.code, "Installed", "Uninstall"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.type << "/" << c.code);
        const std::string json = result_json(operation(c.type, {8}), c.code, "text");
        EXPECT_NE(json.find(R"("CurrentStatus":")" + std::string(c.status) + '"'), std::string::npos) << json;
        EXPECT_NE(json.find(R"("OperationPerformed":")" + std::string(c.performed) + '"'), std::string::npos);
        const bool success = c.code == 0;
        EXPECT_EQ(json.find("\"Version\"") != std::string::npos, success);
        EXPECT_EQ(json.find("\"DeploymentUnitRef\"") != std::string::npos, success);
        EXPECT_EQ(json.find("\"Resolved\"") != std::string::npos, success);
        EXPECT_EQ(json.find("\"ExecutionUnitRefList\"") != std::string::npos, success);
    }
}

TEST(OperationResult, FaultTextOnlyWhenGiven) {
    const auto op = operation(pkgd::OPERATION_REMOVE);
    EXPECT_EQ(result_json(op, 9001, std::nullopt).find("\"Fault\""), std::string::npos);
    EXPECT_NE(result_json(op, 0, "").find(R"("FaultCode":0,"Fault":"",)"), std::string::npos);
    EXPECT_NE(result_json(op, 9001, "Request denied").find(R"("FaultCode":9001,"Fault":"Request denied",)"),
              std::string::npos);
}

TEST(OperationResult, UnitReferenceListIsCutAtItsBound) {
    auto op = operation(pkgd::OPERATION_UPDATE);
    std::string full;
    for (std::int32_t i = 0; i < 100; ++i) {
        const std::int32_t index = 1000000 + i;
        op.pkg->eu.push_back(pkgd::eu_info{.index = index, .euid = {}, .name = {}});
        if (!full.empty()) full += ',';
        full += std::string(pkgd::kExecutionUnitPath) + std::to_string(index) + '.';
    }
    ASSERT_GT(full.size(), pkgd::kUnitRefListMax);
    ubus::BlobBuf msg;
    ASSERT_TRUE(pkgd::operation_result_message(msg, op, 0, "", kDone));
    std::string_view list;
    for (const ubus::Attr a : msg.root().children())
        if (a.name() == "ExecutionUnitRefList") list = a.as_string();
    EXPECT_EQ(list, std::string_view(full).substr(0, pkgd::kUnitRefListMax));
}

TEST(OperationResult, NothingWithoutAPackageOrForAnUnknownOperation) {
    pkgd::operation_info no_package;
    EXPECT_EQ(result_json(no_package, 0, ""), "nothing");
    EXPECT_EQ(result_json(operation(3), 0, ""), "nothing");
    EXPECT_EQ(result_json(operation(-1), 9001, "Request denied"), "nothing");
}

}  // namespace

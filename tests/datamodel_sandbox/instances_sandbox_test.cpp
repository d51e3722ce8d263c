// Creating, deleting and configuring data-model instances against the simulator's agent: the exact
// requests it receives, the numbers it hands out, and an agent that is missing, slow or refusing.
#include <unistd.h>

#include <memory>
#include <string>

#include "gateway_fixture.hpp"
#include "pkgd/datamodel.hpp"

namespace datamodel_sandbox {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::string_view kDu = "InternetGatewayDevice.SoftwareModules.DeploymentUnit.";
constexpr std::string_view kEu = "InternetGatewayDevice.SoftwareModules.ExecutionUnit.";
constexpr std::string_view kEe = "InternetGatewayDevice.SoftwareModules.ExecEnv.";

std::string add(std::string_view pid, std::string_view path) {
    return "add {\"pid\":" + std::string(pid) + ",\"" + std::string(path) + "\":{}}";
}

// An uninstall operation on a package whose units carry these instance numbers.
pkgd::operation_info removal(std::int32_t du, std::initializer_list<std::int32_t> units, std::int32_t ee) {
    auto pkg = std::make_shared<pkgd::pkg_info>();
    pkg->du.index = du;
    for (const auto index : units) pkg->eu.push_back(pkgd::eu_info{.index = index, .euid = {}, .name = {}});
    if (ee != 0) {
        pkg->ee = pkgd::ee_info{};
        pkg->ee->index = ee;
    }
    pkgd::operation_info op;
    op.type = pkgd::OPERATION_REMOVE;
    op.pkg = std::move(pkg);
    return op;
}

using Instances = GatewayTest;

TEST_F(Instances, EachCreateAddsOneInstanceOfItsObjectAndCommits) {
    const std::string out = inside([](std::string& text) {
        text = std::to_string(::getpid());
        for (auto create : {pkgd::package_xml_create_du_instance, pkgd::package_xml_create_du_instance,
                            pkgd::package_xml_create_eu_instance, pkgd::package_xml_create_ee_instance}) {
            text += ' ' + std::to_string(create());
        }
        return 0;
    });
    const std::string pid = out.substr(0, out.find(' '));
    EXPECT_EQ(out, pid + " 1 2 1 1");
    EXPECT_THAT(datamodel_requests(), ElementsAre(add(pid, kDu), "commit {}", add(pid, kDu), "commit {}",
                                                  add(pid, kEu), "commit {}", add(pid, kEe), "commit {}"));
    EXPECT_THAT(instances(kDu), ElementsAre(1, 2));
    EXPECT_THAT(instances(kEe), ElementsAre(1));
}

TEST_F(Instances, DeleteSendsTheNumbersOfOneKindThenCommits) {
    inside([](std::string&) {
        for (int i = 0; i < 3; ++i) pkgd::package_xml_create_eu_instance();
        pkgd::package_xml_create_du_instance();
        pkgd::package_xml_create_ee_instance();
        return 0;
    });
    clear_request_log();

    const std::string pid = inside([](std::string& text) {
        const pkgd::operation_info op = removal(1, {1, 0, 3}, 1);
        pkgd::package_xml_del_instance(pkgd::DM_INSTANCE_EU, op);
        pkgd::package_xml_del_instance(pkgd::DM_INSTANCE_DU, op);
        // Nothing to delete: no request at all, not even a commit.
        pkgd::package_xml_del_instance(pkgd::DM_INSTANCE_EE, removal(1, {}, 0));
        pkgd::package_xml_del_instance(pkgd::DM_INSTANCE_EU, removal(0, {0, 2}, 0));
        pkgd::package_xml_del_instance(pkgd::DM_INSTANCE_DU, removal(0, {}, 0));
        pkgd::package_xml_del_instance(7, op);
        text = std::to_string(::getpid());
        return 0;
    });
    EXPECT_THAT(
        datamodel_requests(),
        ElementsAre("del {\"pid\":" + pid + ",\"" + std::string(kEu) + "\":[\"1\",\"3\"]}", "commit {}",
                    "del {\"pid\":" + pid + ",\"" + std::string(kDu) + "\":[\"1\"]}", "commit {}"));
    EXPECT_THAT(instances(kEu), ElementsAre(2));
    EXPECT_THAT(instances(kDu), IsEmpty());
    EXPECT_THAT(instances(kEe), ElementsAre(1));
}

TEST_F(Instances, AutoStartIsSetOnTheUnitsParameterThenCommitted) {
    inside([](std::string&) {
        pkgd::package_xml_set_eu_autostart(7, "0");
        return 0;
    });
    EXPECT_THAT(
        datamodel_requests(),
        ElementsAre(
            R"(set {"object":{"InternetGatewayDevice.SoftwareModules.ExecutionUnit.7.AutoStart":"0"}})",
            "commit {}"));
}

TEST_F(Instances, WithoutTheAgentNothingIsCreatedOrSent) {
    set_fault("datamodel", "absent");
    const std::string out = inside([](std::string& text) {
        text = std::to_string(pkgd::package_xml_create_du_instance());
        pkgd::package_xml_del_instance(pkgd::DM_INSTANCE_DU, removal(4, {}, 0));
        pkgd::package_xml_set_eu_autostart(4, "0");
        return 0;
    });
    EXPECT_EQ(out, "0");
    set_fault("datamodel", "normal");
    EXPECT_THAT(datamodel_requests(), IsEmpty());
}

TEST_F(Instances, ASlowOrRefusingAgentGivesNoInstanceButStillGetsTheCommit) {
    for (const std::string_view mode : {"slow", "refuse"}) {
        SCOPED_TRACE(mode);
        set_fault("datamodel", mode);
        const std::string out = inside([](std::string& text) {
            text = std::to_string(::getpid()) + ' ' + std::to_string(pkgd::package_xml_create_eu_instance());
            return 0;
        });
        const std::string pid = out.substr(0, out.find(' '));
        EXPECT_EQ(out, pid + " 0");
        EXPECT_THAT(datamodel_requests(), ElementsAre(add(pid, kEu), "commit {}"));
        set_fault("datamodel", "normal");
        clear_request_log();
    }
}

}  // namespace
}  // namespace datamodel_sandbox

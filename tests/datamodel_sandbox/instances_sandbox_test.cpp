// The data-model bridge against the simulator's agent: the exact requests it receives for
// instances and parameters, the numbers it hands out, an agent that is missing, slow or refusing,
// and the operation-result event as a listener on the bus receives it.
#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <optional>
#include <regex>

#include "gateway_client.hpp"
#include "pkgd/datamodel.hpp"

namespace {

using namespace pkgd;

const std::string kDu(kDeploymentUnitPath), kEu(kExecutionUnitPath), kEe(kExecEnvPath);

std::string add(const std::string& pid, const std::string& path) {
    return "add {\"pid\":" + pid + ",\"" + path + "\":{}}";
}

// An operation on a package whose units carry these instance numbers.
operation_info operation(std::int32_t du, std::initializer_list<std::int32_t> units, std::int32_t ee) {
    operation_info op;
    op.pkg = std::make_shared<pkg_info>();
    op.pkg->du.index = du;
    for (const auto index : units) op.pkg->eu.push_back(eu_info{.index = index, .euid = {}, .name = {}});
    if (ee != 0) op.pkg->ee.emplace().index = ee;
    return op;
}

// A fresh gateway for each test, so that answers the simulator still owes one test (a slow agent)
// never reach the next.
class DataModelInGateway : public ::testing::Test {
protected:
    void SetUp() override {
        auto options = gwtest::named_gateway();
        options.simulator = true;
        gw_.emplace(options);
        ASSERT_TRUE(gw_->up()) << gw_->error();
    }
    // Runs `body` inside and returns its pid followed by what it wrote.
    std::string inside(const std::function<void(std::string& out)>& body) {
        return gwtest::run_inside(*gw_, [&body](std::string& out) {
            out = std::to_string(::getpid());
            body(out);
            return 0;
        });
    }
    std::vector<std::string> requests() { return gwtest::sim_requests(*gw_, "datamodel"); }
    std::string held() { return gwtest::sim_state(*gw_, "datamodel"); }

    std::optional<sandbox::Gateway> gw_;
};

TEST_F(DataModelInGateway, CreateDeleteAndSetEachSendTheirRequestThenCommitAndNothingWithoutAnInstance) {
    const std::string out = inside([](std::string& text) {
        for (auto create : {package_xml_create_du_instance, package_xml_create_du_instance,
                            package_xml_create_eu_instance, package_xml_create_eu_instance,
                            package_xml_create_eu_instance, package_xml_create_ee_instance})
            text += ' ' + std::to_string(create());
    });
    std::string pid = out.substr(0, out.find(' '));
    EXPECT_EQ(out, pid + " 1 2 1 2 3 1");
    EXPECT_EQ(requests(), (std::vector<std::string>{add(pid, kDu), "commit {}", add(pid, kDu), "commit {}",
                                                    add(pid, kEu), "commit {}", add(pid, kEu), "commit {}",
                                                    add(pid, kEu), "commit {}", add(pid, kEe), "commit {}"}));
    ASSERT_TRUE(gw_->sim_reset());
    pid = inside([](std::string&) {
        const operation_info op = operation(1, {1, 0, 3}, 1);
        package_xml_del_instance(DM_INSTANCE_EU, op);
        package_xml_del_instance(DM_INSTANCE_DU, op);
        // Nothing to delete: no request at all, not even a commit.
        package_xml_del_instance(DM_INSTANCE_EE, operation(1, {}, 0));
        package_xml_del_instance(DM_INSTANCE_EU, operation(0, {0, 2}, 0));  // the first unit decides
        package_xml_del_instance(DM_INSTANCE_DU, operation(0, {}, 0));
        package_xml_del_instance(7, op);
        package_xml_set_eu_autostart(7, "0");
    });
    EXPECT_EQ(requests(),
              (std::vector<std::string>{
                  "del {\"pid\":" + pid + ",\"" + kEu + "\":[\"1\",\"3\"]}", "commit {}",
                  "del {\"pid\":" + pid + ",\"" + kDu + "\":[\"1\"]}", "commit {}",
                  R"(set {"object":{"InternetGatewayDevice.SoftwareModules.ExecutionUnit.7.AutoStart":"0"}})",
                  "commit {}"}));
    EXPECT_EQ(
        held(),
        R"({"instances":{")" + kDu + R"(":[2],")" + kEe + R"(":[1],")" + kEu +
            R"(":[2]},"params":{"InternetGatewayDevice.SoftwareModules.ExecutionUnit.7.AutoStart":"0"},"commits":9})");
}

}  // namespace

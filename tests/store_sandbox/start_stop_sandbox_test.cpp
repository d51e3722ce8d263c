// Starting and stopping packages through the simulator's service manager, which runs the root's
// init scripts; the LCM events that follow only a successful request.
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "pkgd/lcm_events.hpp"
#include "pkgd/run_state.hpp"
#include "sim_state.hpp"
#include "store_gateway.hpp"

namespace {

namespace fs = std::filesystem;
using namespace pkgd;
using store_sandbox::EventLog;
using store_sandbox::read_text;
using store_sandbox::run_as_worker;
using store_sandbox::SimState;

constexpr const char* kPackageObject = "Services.Management.LCM.ExecutionEnvironments.System.Packages.3";
constexpr const char* kServices = "Services.Management.LCM.ExecutionEnvironments.System.Services operate ";

// Init scripts that note each call in /tmp/operations.
void install_scripts(const fs::path& root) {
    for (const char* name : {"demo", "demo-watch", "lxc"}) {
        const fs::path script = root / "etc/init.d" / name;
        std::ofstream(script) << "#!/bin/sh\necho \"" << name << " $1\" >> /tmp/operations\n";
        fs::permissions(script, fs::perms(0755));
    }
}

pkg_info ordinary_package() {
    pkg_info pkg;
    pkg.id = "3";
    pkg.object_name = kPackageObject;
    pkg.eu.push_back({4, "EU-4", "demo"});
    pkg.eu.push_back({6, "EU-6", "demo-watch"});
    return pkg;
}

pkg_info environment_package(bool with_ee) {
    pkg_info pkg = ordinary_package();
    pkg.eu.clear();
    pkg.du.pkgtype = PKGTYPE_EE;
    if (with_ee) {
        pkg.ee.emplace();
        pkg.ee->index = 2;
        pkg.ee->file = "lxc";
    }
    return pkg;
}

class StartStopInGateway : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        sandbox::GatewayOptions options;
        options.name = "store-start-stop";
        options.simulator = true;
        options.prepare = install_scripts;
        gw_ = new sandbox::Gateway(options);
    }
    static void TearDownTestSuite() {
        delete gw_;
        gw_ = nullptr;
    }
    void SetUp() override {
        ASSERT_TRUE(gw_->up()) << gw_->error();
        ASSERT_TRUE(events_.ok());
        ASSERT_TRUE(gw_->set_fault("services", "normal"));
        ASSERT_TRUE(gw_->sim_reset());
        fs::remove(gw_->path("/tmp/operations"));
    }

    // package_start or package_stop of `pkg` inside the gateway: its answer.
    std::string act(const pkg_info& pkg, bool start) {
        return run_as_worker(*gw_, [&pkg, start](std::string& out) {
            out = std::to_string(start ? package_start(pkg) : package_stop(pkg));
        });
    }

    static std::string event(int code, const char* name) {
        return std::string(kLcmEventType) + R"( {"Header":{"Code":)" + std::to_string(code) + R"(,"Name":")" +
               name + R"("},"Body":{"PackageId":")" + kPackageObject + "\"}}";
    }

    static sandbox::Gateway* gw_;
    EventLog events_{*gw_, kLcmEventType};
};
sandbox::Gateway* StartStopInGateway::gw_ = nullptr;

TEST_F(StartStopInGateway, UnitsAreStartedAndStoppedThenAnnounced) {
    EXPECT_EQ(act(ordinary_package(), true), "0");
    EXPECT_EQ(act(ordinary_package(), false), "0");
    EXPECT_EQ(read_text(gw_->path("/tmp/operations")),
              "demo start\ndemo-watch start\ndemo stop\ndemo-watch stop\n");
    EXPECT_EQ(SimState(*gw_).requests("services"),
              (std::vector<std::string>{
                  std::string(kServices) + R"({"Operation":"start","name":["demo","demo-watch"]})",
                  std::string(kServices) + R"({"Operation":"stop","name":["demo","demo-watch"]})"}));
    EXPECT_EQ(events_.wait_for(2),
              (std::vector<std::string>{event(10, "SERVICES_MANAGEMENT_LCM_PACKAGE_ENABLED"),
                                        event(11, "SERVICES_MANAGEMENT_LCM_PACKAGE_DISABLED")}));
}

TEST_F(StartStopInGateway, EnvironmentPackageNamesItsScriptOrNothing) {
    EXPECT_EQ(act(environment_package(true), true), "0");
    pkg_info no_units = ordinary_package();
    no_units.eu.clear();
    act(no_units, false);
    act(environment_package(false), true);
    EXPECT_EQ(read_text(gw_->path("/tmp/operations")), "lxc start\n");
    EXPECT_EQ(SimState(*gw_).requests("services"),
              (std::vector<std::string>{std::string(kServices) + R"({"Operation":"start","name":["lxc"]})",
                                        std::string(kServices) + R"({"Operation":"stop","name":[]})",
                                        std::string(kServices) + R"({"Operation":"start"})"}));
}

TEST_F(StartStopInGateway, FailedRequestsGiveMinusOneAndNoEvent) {
    for (const char* mode : {"slow", "refuse", "absent"}) {
        SCOPED_TRACE(mode);
        ASSERT_TRUE(gw_->set_fault("services", mode));
        EXPECT_EQ(act(ordinary_package(), true), "-1");
        EXPECT_EQ(act(ordinary_package(), false), "-1");
    }
    EXPECT_TRUE(events_.settle().empty());
    EXPECT_FALSE(fs::exists(gw_->path("/tmp/operations")));
}

}  // namespace

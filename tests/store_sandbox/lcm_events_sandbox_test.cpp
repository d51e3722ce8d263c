// LCM events as listeners on the bus receive them, sent from inside the gateway.
#include "pkgd/lcm_events.hpp"
#include "store_gateway.hpp"

namespace {

using store_sandbox::EventLog;
using store_sandbox::run_as_worker;

TEST(LcmEventsInGateway, ListenersReceiveHeaderAndOptionalBody) {
    sandbox::GatewayOptions options;
    options.name = "store-events";
    sandbox::Gateway gw(options);
    ASSERT_TRUE(gw.up()) << gw.error();
    EventLog events(gw, pkgd::kLcmEventType);
    ASSERT_TRUE(events.ok());

    run_as_worker(gw, [](std::string&) {
        pkgd::package_event(pkgd::kLcmInstalling, pkgd::kLcmPackageIdKey,
                            "Services.Management.LCM.ExecutionEnvironments.System.Packages.3");
        pkgd::package_event(pkgd::kLcmExecEnvAdded, pkgd::kLcmExecEnvIdKey,
                            "Services.Management.LCM.ExecutionEnvironments.lxc");
        pkgd::package_event(pkgd::kLcmDeleteFailed, "", "no body");
    });
    EXPECT_EQ(
        events.wait_for(3),
        (std::vector<std::string>{
            R"(Services.Management.LCM {"Header":{"Code":21,"Name":"SERVICES_MANAGEMENT_LCM_PACKAGE_INSTALLING"},)"
            R"("Body":{"PackageId":"Services.Management.LCM.ExecutionEnvironments.System.Packages.3"}})",
            R"(Services.Management.LCM {"Header":{"Code":1,)"
            R"("Name":"SERVICES_MANAGEMENT_LCM_EXECUTION_ENVIRONMENT_ADDED"},)"
            R"("Body":{"ExecutionEnvironmentId":"Services.Management.LCM.ExecutionEnvironments.lxc"}})",
            R"(Services.Management.LCM {"Header":{"Code":14,"Name":"SERVICES_MANAGEMENT_LCM_PACKAGE_DELETE_FAILED"}})",
        }));
}

}  // namespace

#include "gateway_world.hpp"

#include "sandbox/inventory.hpp"

namespace faults {
namespace {

sandbox::GatewayOptions options_for(const std::string& name, const sandbox::feed::ScratchDir& feed) {
    sandbox::GatewayOptions options;
    options.name = name;
    options.pkgd = options.simulator = true;
    options.feed_dir = feed.path();
    return options;
}

}  // namespace

FaultGateway::FaultGateway(const std::string& name)
    : scratch(FAULTS_SCRATCH_DIR, "feed"), feed(scratch.path(), "app", "app for the tests"),
      gw(options_for(name, scratch)), bus(gw) {}

std::string FaultGateway::publish(const std::string& version) {
    return gw.feed_url("http") + "/" + feed.publish(gw.feed_pki_dir(), version);
}

bool FaultGateway::ready() {
    return gw.up() && bus.wait_for_object(kEnvironment) && bus.listen("Services.Management.LCM") &&
           bus.listen("SOFTWAREMODULES.PACKAGE.OPERATIONSRESULT");
}

int FaultGateway::operate(std::string_view method, int request, const std::string& fields) {
    return bus.call(kOps, method, R"({"RequestID":)" + std::to_string(request) + R"(,"OperateID":1,"OperateMID":1)" +
                                      fields + "}").status;
}

std::string world(const sandbox::Gateway& gw) {
    return sandbox::take_inventory(gw, kPackages).describe();
}

std::string agreeing(const std::string& version) {
    const int n = version.empty() ? 0 : 1;
    sandbox::Inventory inv{n, n, n, n, n, n, n, n, n, {}, {}};
    if (n) inv.installed = {"app " + version}, inv.listed = {version + " Installed"};
    return inv.describe();
}

std::vector<std::string> results_of(gwtest::Client& bus, int request_id) {
    std::vector<std::string> faults;
    const std::string needle = "\"RequestID\":" + std::to_string(request_id) + ",";
    bus.bus().dispatch(0);
    for (const std::string& e : bus.events(0, std::chrono::milliseconds(0))) {
        const auto at = e.find("\"FaultCode\":");
        if (e.starts_with("SOFTWAREMODULES.PACKAGE.OPERATIONSRESULT") && e.find(needle) != std::string::npos)
            faults.push_back(e.substr(at + 12, e.find_first_of(",}", at) - at - 12));
    }
    return faults;
}

}  // namespace faults

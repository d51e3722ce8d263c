// Starting and stopping a package through the environment's service manager.
#include <string>

#include "pkgd/peer_call.hpp"
#include "pkgd/identity.hpp"
#include "pkgd/lcm_events.hpp"
#include "pkgd/run_state.hpp"
#include "ubus/wire.hpp"

namespace pkgd {
namespace {

constexpr std::size_t kObjectNameMax = 255;

int package_action(const pkg_info& pkg, std::string_view action) {
    ubus::BlobBuf msg;
    operate_message(msg, pkg, action);
    if (call_peer(service_manager_object(package_get_ee_name()), "operate", msg.members(),
                  kServiceManagerTimeoutMs) != ubus::kOk)
        return -1;
    if (action == "start")
        package_event(kLcmPackageEnabled, kLcmPackageIdKey, pkg.object_name);
    else if (action == "stop")
        package_event(kLcmPackageDisabled, kLcmPackageIdKey, pkg.object_name);
    return 0;
}

}  // namespace

std::string service_manager_object(std::string_view ee_name) {
    std::string name("Services.Management.LCM.ExecutionEnvironments.");
    name.append(ee_name).append(".Services");
    if (name.size() > kObjectNameMax) name.resize(kObjectNameMax);
    return name;
}

void operate_message(ubus::BlobBuf& msg, const pkg_info& pkg, std::string_view action) {
    msg.add_string("Operation", action);
    if (pkg.du.pkgtype == PKGTYPE_EE) {
        if (!pkg.ee) return;
        const std::size_t names = msg.open_array("name");
        msg.add_string({}, pkg.ee->file);
        msg.close(names);
        return;
    }
    // A unit without a name has no init script the service manager could run.
    const std::size_t names = msg.open_array("name");
    for (const eu_info& eu : pkg.eu)
        if (eu.name) msg.add_string({}, *eu.name);
    msg.close(names);
}

int package_start(const pkg_info& pkg) {
    return package_action(pkg, "start");
}
int package_stop(const pkg_info& pkg) {
    return package_action(pkg, "stop");
}

}  // namespace pkgd

#include "daemon/daemon_objects.hpp"

#include <syslog.h>

#include <string>
#include <vector>

#include "daemon/ee_object.hpp"
#include "daemon/event_intake.hpp"
#include "daemon/package_operation_object.hpp"
#include "daemon/package_x_object.hpp"
#include "daemon/packages_object.hpp"
#include "pkgd/platform.hpp"
#include "ubus/wire.hpp"

namespace pkgd {
namespace {

// Oldest first: the order restore registered them in, each going to the registry's head. A
// connection lost meanwhile ends the round: the next one starts over.
void add_package_objects_again(daemon_context& d) {
    std::vector<std::string> names;
    names.reserve(d.s_pkgs.size());
    for (const registered_pkg& entry : d.s_pkgs) names.push_back(entry.pkg->object_name);
    for (auto name = names.rbegin(); name != names.rend() && d.ctx.connected(); ++name) {
        const ubus::AddResult added = add_package_x_object(d, *name);
        if (added.status != ubus::kOk && d.ctx.connected())
            log_sys(LOG_WARNING, kDaemonLogCategory, 0, 0, "package object %s refused (status %d)",
                    name->c_str(), added.status);
        d.s_pkgs.rebind(*name, added.status == ubus::kOk ? added.id : 0);
    }
}

}  // namespace

int add_service_objects(daemon_context& d) {
    if (const int status = add_package_object(d).status; status != ubus::kOk) return status;
    if (const int status = add_lcm_event_handler(d).status; status != ubus::kOk) return status;
    return add_opkg_object(d).status;
}

int register_again(daemon_context& d) {
    if (const int status = add_service_objects(d); status != ubus::kOk) return status;
    add_package_objects_again(d);
    // A connection lost meanwhile shows in the next registration; the caller learns of it from
    // the connection itself.
    add_ee_object(d);
    return d.ctx.connected() ? ubus::kOk : ubus::kConnectionFailed;
}

}  // namespace pkgd

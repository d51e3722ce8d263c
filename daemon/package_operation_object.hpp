// The package-operation object: the management side's entry for installing, updating and
// uninstalling deployment units, listing them and cancelling operations. It answers with a bus
// status alone (no reply envelope).
#pragma once

#include <string>
#include <string_view>

#include "daemon/daemon_context.hpp"
#include "ubus/client.hpp"

namespace pkgd {

// "SoftwareModules.Package.<ee_id>", cut to 63 characters.
std::string package_operation_object_name(std::string_view ee_id);

// Registers the object at d.pkg_name on d.ctx with "Install", "Update", "Uninstall", "List" and
// "Cancel", their handlers working on `d`.
ubus::AddResult add_opkg_object(daemon_context& d);

}  // namespace pkgd

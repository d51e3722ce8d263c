// The daemon's process-wide state: its one bus connection, the names of its objects, fixed at
// start-up, and the registry of its packages. Everything the daemon does after start-up runs on
// the loop's one thread, so nothing here is locked.
#pragma once

#include "daemon/package_registry.hpp"
#include "pkgd/records.hpp"
#include "ubus/client.hpp"

namespace pkgd {

struct daemon_context {
    ubus::Connection ctx;
    FixedText<256> object;       // the Packages object; also the prefix of per-package objects
    FixedText<64> pkg_name;      // the package-operation object
    FixedText<256> s_ee_object;  // the execution-environment object
    package_registry s_pkgs;
};

daemon_context& the_daemon();

}  // namespace pkgd

// The per-package object: one per registered package, through which it is read, updated and
// deleted (and, later, started and stopped). Every one of them has the same methods, so they share
// one object type, described to the broker once.
#pragma once

#include <string_view>

#include "daemon/daemon_context.hpp"
#include "daemon/source_args.hpp"
#include "ubus/client.hpp"

namespace pkgd {

// Registers a per-package object at `name` on d.ctx: "Get"/"get", "Set"/"set", "Delete"/"del",
// "Update", "Start", "Stop", "IsLatestVersion", with their advertised (flat, dotted) arguments.
ubus::AddResult add_package_x_object(daemon_context& d, std::string_view name);

// The handlers; each finds its package by the name of the object called. "Get" answers the
// package table as "List" shows it, or an empty body when the package has gone meanwhile
// (removed by an event while the caller held on to the object's id). "Set" accepts and changes
// nothing. "Delete" and "Update" queue an uninstall or an update of the package and answer "OK",
// or "OPERATION_ILLEGAL" when the package has gone or no worker can be started; "Update" answers
// "ARGUMENT_REQUIRED_MISSING" for a Source without Protocol, Address or Resource. Start, Stop and
// IsLatestVersion are in package_x_waits.hpp.
int package_x_get(daemon_context& d, ubus::Request& req);
int package_x_set(daemon_context& d, ubus::Request& req);
int package_x_delete(daemon_context& d, ubus::Request& req);
int package_x_update(daemon_context& d, ubus::Request& req);

// The "Source" of an Update or IsLatestVersion request.
source_args read_update_args(ubus::Bytes args);

}  // namespace pkgd

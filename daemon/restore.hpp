// Rebuilding the registry at start-up from the package record files earlier runs left behind.
#pragma once

#include "daemon/daemon_context.hpp"

namespace pkgd {

// Registers one package in d.s_pkgs, with its bus object, per package file of d.files. Files whose
// name starts with ".", that are not regular files holding a JSON object, or that name no
// deployment unit are skipped. Runs once, after the
// package-operation object is on the bus and before the execution-environment object is.
void restore_registered_packages(daemon_context& d);

}  // namespace pkgd

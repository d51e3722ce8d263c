// Rebuilding the registry at start-up from the package record files earlier runs left behind.
#pragma once

namespace pkgd {

// Registers one package, with its bus object, per package record file. Runs once, after the
// package-operation object is on the bus and before the execution-environment object is.
void restore_registered_packages();

}  // namespace pkgd

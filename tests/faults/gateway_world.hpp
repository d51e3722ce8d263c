// What a gateway integrator checks after a fault: the package "app" as the package tool, the
// registry, the record files, the LCM catalog and the data model see it. They agree when each
// holds exactly one of it (installed) or none (not installed).
#pragma once

#include <string>

#include "gateway_client.hpp"

namespace faults {

inline const std::string kPackages = "Services.Management.LCM.ExecutionEnvironments.System.Packages";

// One line naming what each place holds, e.g. "opkg 1.0 | registry 1 1.0 Installed | files
// pkg 1 du 1 eu 1 | catalog 1/1 | datamodel 1/1".
std::string observe(const sandbox::Gateway& gw, gwtest::Client& bus);
// The same line for a gateway where "app" is installed in `version`, or not at all ("").
std::string agreeing(const std::string& version);

// The results of the operation with this RequestID received so far.
int results_of(gwtest::Client& bus, int request_id);

}  // namespace faults

// What each place of a gateway holds of pkgd's packages: the package tool's database, pkgd's
// registry (its List over the bus), the record files, the LCM catalog and the data model (the
// gateway simulator's state). After any fault these must tell the same story: as many packages
// installed as listed, each with its records, its catalog entries and its data-model instances.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "sandbox/gateway.hpp"

namespace sandbox {

struct Inventory {
    int opkg = 0;      // packages the package tool has installed (its info directory)
    int registry = -1; // packages pkgd lists; -1 when the List failed
    int pkg_files = 0, du_files = 0, eu_files = 0;    // record files (hidden files left out)
    // LCM catalog entries and data-model instances; -1 when the simulator's state could not be read
    // (its request log grows with every request: reset it before a look after many operations).
    int catalog_du = 0, catalog_eu = 0;
    int datamodel_du = 0, datamodel_eu = 0;
    std::vector<std::string> installed;  // "NAME VERSION" per package installed, by name
    std::vector<std::string> listed;     // "VERSION STATUS" per package listed, in registry order

    // The counts, "opkg 1 | registry 1 | files pkg 1 du 1 eu 1 | catalog 1/1 | datamodel 1/1".
    std::string counts() const;
    // The counts, then the packages installed and listed (Running reads as Installed, which it is):
    // "... | app 1.0 | 1.0 Installed".
    std::string describe() const;
    // Each count equal to `packages`, one unit per package where units are counted per unit.
    bool agrees(int packages, int units_each) const;
};

// `packages_object`: pkgd's Packages object, e.g. "Services.Management.LCM.ExecutionEnvironments.System.Packages".
Inventory take_inventory(const Gateway& gw, std::string_view packages_object);

}  // namespace sandbox

// Records with every field set, shared by the record message and record file tests, and the
// messages built from them as JSON.
#pragma once

#include "pkgd/records.hpp"
#include "ubus/json.hpp"

namespace store_test {

// The message `build` writes into a fresh buffer, as compact JSON.
template <typename Build>
std::string json_of(Build build) {
    ubus::BlobBuf msg;
    build(msg);
    return ubus::json_format(msg);
}

inline pkgd::pkg_info ordinary_package() {
    pkgd::pkg_info pkg;
    pkg.id = "3";
    pkg.url = "http://feed.example:8080/pkgs/demo.ipk";
    pkg.username = "alice";
    pkg.password = "s3cret";
    pkg.object_name = "Services.Management.LCM.ExecutionEnvironments.System.Packages.3";
    pkgd::du_info& du = pkg.du;
    du.index = 7;
    du.uuid = "0d0e0a0d-0000-5000-8000-000000000001";
    du.version = "1.2.3";
    du.name = "demo";
    du.vendor = "Example Ltd";
    du.resolved = 1;
    du.enabled = 0;
    du.description = "A \"demo\" package";
    du.files = "/usr/bin/demo;/etc/init.d/demo;";
    du.dependency = "libc,libubox";
    du.section = "utils";
    du.license = "MIT";
    du.licensefiles = "/usr/share/demo/LICENSE";
    du.architecture = "arm_cortex-a9";
    du.provides = "demo-api";
    du.size = 3'000'000'000u;  // beyond the signed 32-bit range, as the files store it
    du.installedsize = 4096;
    du.time = "2024-03-05T07:08:09+01:00";
    pkg.eu.push_back({4, "EU-4", "demo"});
    pkg.eu.push_back({6, "EU-6", "demo-watch"});
    return pkg;
}

inline pkgd::pkg_info environment_package() {
    pkgd::pkg_info pkg;
    pkg.id = "5";
    pkg.url = "https://feed.example/lxc.ipk";
    pkg.du.index = 9;
    pkg.du.pkgtype = pkgd::PKGTYPE_EE;
    pkg.du.name = "lxc-env";
    pkg.du.uuid = "u-9";
    pkg.du.version = "2.0";
    pkgd::ee_info ee;
    ee.index = 2;
    ee.name = "lxc-env";
    ee.version = "2.0";
    ee.vendor = "Example Ltd";
    ee.type = "Execution Environment/LXC";
    ee.file = "lxc-env";
    pkg.ee = ee;
    return pkg;
}

}  // namespace store_test

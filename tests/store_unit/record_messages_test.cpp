// The messages built from records: the members of the four record files (names, order, JSON types
// and the conditions under which each is present).
#include <gtest/gtest.h>

#include "pkgd/record_files.hpp"
#include "sample_records.hpp"

namespace {

using namespace pkgd;
using store_test::json_of;

TEST(RecordMessages, PackageMembersFollowTheUnitsThePackageHas) {
    pkg_info pkg = store_test::ordinary_package();
    EXPECT_EQ(json_of([&](auto& m) { pkg_record_message(m, pkg); }),
              R"({"DU":7,"EU":[4,6],"UUID":"0d0e0a0d-0000-5000-8000-000000000001",)"
              R"("resource.url":"http://feed.example:8080/pkgs/demo.ipk","resource.username":"alice",)"
              R"("resource.password":"s3cret"})");
    // Without units: no "EU" (not even an empty one); any non-zero flag is written as true.
    pkg.eu.clear();
    pkg.disable_autostart = 2;
    pkg.username.clear();
    EXPECT_EQ(json_of([&](auto& m) { pkg_record_message(m, pkg); }),
              R"({"DU":7,"UUID":"0d0e0a0d-0000-5000-8000-000000000001",)"
              R"("resource.url":"http://feed.example:8080/pkgs/demo.ipk","resource.username":"",)"
              R"("resource.password":"s3cret","disableautostart":true})");
    EXPECT_EQ(json_of([&](auto& m) { pkg_record_message(m, store_test::environment_package()); }),
              R"({"EE":2,"DU":9,"UUID":"u-9","resource.url":"https://feed.example/lxc.ipk",)"
              R"("resource.username":"","resource.password":""})");
}

TEST(RecordMessages, DeploymentUnitWritesAbsentTextsOnlyWhenTheyAreAlwaysMembers) {
    EXPECT_EQ(json_of([](auto& m) { du_record_message(m, store_test::ordinary_package(), "System"); }),
              R"({"name":"demo","uuid":"0d0e0a0d-0000-5000-8000-000000000001","version":"1.2.3",)"
              R"("vendor":"Example Ltd","resolved":true,"enabled":false,)"
              R"("description":"A \"demo\" package","files":"/usr/bin/demo;/etc/init.d/demo;",)"
              R"("dependency":"libc,libubox","section":"utils","license":"MIT",)"
              R"("licensefiles":"/usr/share/demo/LICENSE","architecture":"arm_cortex-a9",)"
              R"("provides":"demo-api","size":-1294967296,"installedsize":4096,)"
              R"("time":"2024-03-05T07:08:09+01:00","pkgtype":0,"EE":"System","EU":[4,6],)"
              R"("URL":"http://feed.example:8080/pkgs/demo.ipk","PKG":"3"})");
    pkg_info pkg;
    pkg.id = "12";
    pkg.du.index = 1;
    // No name either: it is written empty so the file keeps its shape.
    EXPECT_EQ(json_of([&](auto& m) { du_record_message(m, pkg, "Main"); }),
              R"({"name":"","uuid":"","version":"","resolved":false,"enabled":false,"size":0,)"
              R"("installedsize":0,"time":"","pkgtype":0,"EE":"Main","EU":[],"URL":"","PKG":"12"})");
    // Present but empty texts are written: set is not the same as non-empty.
    pkg.du.name = "x";
    pkg.du.license = "";
    EXPECT_EQ(json_of([&](auto& m) { du_record_message(m, pkg, "Main"); }),
              R"({"name":"x","uuid":"","version":"","resolved":false,"enabled":false,"license":"",)"
              R"("size":0,"installedsize":0,"time":"","pkgtype":0,"EE":"Main","EU":[],"URL":"","PKG":"12"})");
}

TEST(RecordMessages, UnitAndEnvironmentKeepTheirShapeVendorAndTypeOnlyWhenSet) {
    const pkg_info pkg = store_test::ordinary_package();
    EXPECT_EQ(json_of([&](auto& m) { eu_record_message(m, pkg, pkg.eu[1], "System"); }),
              R"({"euid":"EU-6","name":"demo-watch","EE":"System","PKG":"3"})");
    EXPECT_EQ(json_of([&](auto& m) { eu_record_message(m, pkg, eu_info{8, {}, {}}, "System"); }),
              R"({"euid":"","name":"","EE":"System","PKG":"3"})");
    pkg_info env = store_test::environment_package();
    EXPECT_EQ(json_of([&](auto& m) { ee_record_message(m, env, *env.ee, "System"); }),
              R"({"id":"5","name":"lxc-env","version":"2.0","vendor":"Example Ltd",)"
              R"("type":"Execution Environment/LXC","file":"lxc-env","EE":"System"})");
    env.ee->vendor.reset();
    env.ee->type.reset();
    env.ee->name.reset();
    EXPECT_EQ(json_of([&](auto& m) { ee_record_message(m, env, *env.ee, "System"); }),
              R"({"id":"5","name":"","version":"2.0","file":"lxc-env","EE":"System"})");
}

}  // namespace

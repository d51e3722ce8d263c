// The package record's members: which units it names and the flags it writes. (The other records
// are pinned by the round trip through the files and the catalog sandbox test.)
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

}  // namespace

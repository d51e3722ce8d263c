// The record files on disk, under a scratch directory and without the catalog.
#include "pkgd/record_files.hpp"

#include <gtest/gtest.h>

#include <filesystem>

#include "sample_records.hpp"
#include "temp_dir.hpp"
#include "ubus/json.hpp"

namespace {

using namespace pkgd;
namespace fs = std::filesystem;
using store_test::read_file;

class RecordFilesTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(dir_.path().empty());
        for (const char* sub : {"pkg", "du", "eu", "ee"}) fs::create_directory(dir_ / sub);
    }

    // Every file under the store, as "sub/name".
    std::vector<std::string> all_files() const {
        std::vector<std::string> names;
        for (const auto& entry : fs::recursive_directory_iterator(dir_.path()))
            if (entry.is_regular_file()) names.push_back(fs::relative(entry.path(), dir_.path()).string());
        std::sort(names.begin(), names.end());
        return names;
    }

    store_test::TempDir dir_;
    RecordFiles files_{dir_.str(), "System", false};
};

TEST_F(RecordFilesTest, StoredPackageLoadsBackIntoAFreshRecord) {
    const pkg_info pkg = store_test::ordinary_package();
    files_.store_du(pkg);
    files_.store_eu(pkg);
    files_.store_ee(pkg);  // no environment: nothing
    files_.store_pkg(pkg);
    EXPECT_EQ(all_files(), (std::vector<std::string>{"du/7", "eu/4", "eu/6", "pkg/3"}));

    // The file is exactly the compact JSON text, without a trailing newline.
    ubus::BlobBuf expected;
    eu_record_message(expected, pkg, pkg.eu[0], "System");
    EXPECT_EQ(read_file(dir_ / "eu/4"), ubus::json_format(expected));

    pkg_info back;
    back.id = "3";
    files_.load_pkg(back);
    EXPECT_EQ(back.du.index, 7);
    EXPECT_EQ(back.du.name, "demo");
    EXPECT_EQ(back.du.size, 3'000'000'000u);
    EXPECT_EQ(back.url, pkg.url);
    ASSERT_EQ(back.eu.size(), 2u);
    EXPECT_EQ(back.eu[0].index, 4);
    EXPECT_EQ(back.eu[1].name, "demo-watch");
    EXPECT_FALSE(back.ee);

    const pkg_info env = store_test::environment_package();
    files_.store_ee(env);
    files_.store_pkg(env);
    pkg_info env_back;
    env_back.id = "5";
    files_.load_pkg(env_back);
    ASSERT_TRUE(env_back.ee);
    EXPECT_EQ(env_back.ee->index, 2);
    EXPECT_EQ(env_back.ee->type, "Execution Environment/LXC");
    EXPECT_EQ(env_back.du.index, 0);  // its DU file was never written
}

TEST_F(RecordFilesTest, RewriteReplacesTheRecordAndLeavesNothingElse) {
    pkg_info pkg = store_test::ordinary_package();
    files_.store_du(pkg);
    pkg.du.version = "2.0";
    pkg.du.vendor.reset();
    files_.store_du(pkg);
    EXPECT_EQ(all_files(), (std::vector<std::string>{"du/7"}));
    pkg_info back;
    ASSERT_EQ(files_.load_du(back, 7), 0);
    EXPECT_EQ(back.du.version, "2.0");
    EXPECT_FALSE(back.du.vendor);
}

TEST_F(RecordFilesTest, MissingOrBrokenFilesLeaveTheRecordAsItWas) {
    pkg_info pkg;
    pkg.du.index = 11;
    pkg.du.name = "kept";
    EXPECT_EQ(files_.load_du(pkg, 5), -1);
    EXPECT_EQ(pkg.du.index, 11);

    store_test::write_file(dir_ / "du/5", "[1,2]");
    store_test::write_file(dir_ / "eu/5", R"({"euid": "trunc)");
    store_test::write_file(dir_ / "ee/5", "");
    EXPECT_EQ(files_.load_du(pkg, 5), -1);
    files_.load_eu(pkg, 5);
    files_.load_ee(pkg, 5);
    EXPECT_EQ(pkg.du.index, 11);
    EXPECT_EQ(pkg.du.name, "kept");
    EXPECT_TRUE(pkg.eu.empty());
    EXPECT_FALSE(pkg.ee);

    // A package file pointing at records that are not there registers nothing of them.
    store_test::write_file(dir_ / "pkg/9", R"({"EE":1,"DU":2,"EU":[3],"resource.url":"ftp://h/x"})");
    pkg_info dangling;
    dangling.id = "9";
    files_.load_pkg(dangling);
    EXPECT_FALSE(dangling.ee);
    EXPECT_EQ(dangling.du.index, 0);
    EXPECT_TRUE(dangling.eu.empty());
    EXPECT_EQ(dangling.url, "ftp://h/x");
}

TEST_F(RecordFilesTest, WritingIntoAMissingDirectoryIsSilent) {
    fs::remove(dir_ / "eu");
    const pkg_info pkg = store_test::ordinary_package();
    files_.store_eu(pkg);
    EXPECT_TRUE(all_files().empty());
}

TEST_F(RecordFilesTest, DeletingReportsOnlyForThePackageFile) {
    const pkg_info pkg = store_test::ordinary_package();
    files_.store_pkg(pkg);
    files_.store_du(pkg);
    files_.store_eu(pkg);
    EXPECT_EQ(files_.delete_pkg(pkg), 0);
    EXPECT_EQ(files_.delete_pkg(pkg), -1);
    files_.delete_eu(pkg);
    files_.delete_du(pkg);
    files_.delete_du(pkg);  // already gone: nothing to do, no harm
    EXPECT_TRUE(all_files().empty());
}

TEST_F(RecordFilesTest, PackageIdsThatAreNotPlainNamesAreRefused) {
    fs::create_directory(dir_ / "pkg/sub");
    for (const char* id : {"", ".", "..", ".3", "../du/7", "sub/x", "/abs"}) {
        SCOPED_TRACE(id);
        pkg_info pkg = store_test::ordinary_package();
        pkg.id = id;
        EXPECT_EQ(files_.pkg_path(id), "");
        files_.store_pkg(pkg);
        EXPECT_EQ(files_.delete_pkg(pkg), -1);
    }
    EXPECT_TRUE(all_files().empty());
    EXPECT_EQ(files_.pkg_path("42"), dir_.str() + "/pkg/42");
}

}  // namespace

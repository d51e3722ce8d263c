// The record files on disk, under a scratch directory and without the catalog: round trips of
// every kind, what missing, broken or wrongly typed files do to a record, and ids refused.
#include "pkgd/record_files.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <tuple>

#include "sample_records.hpp"
#include "temp_dir.hpp"

namespace {

using namespace pkgd;
namespace fs = std::filesystem;
using store_test::json_of;

// Every record message of a package, as its files would hold them.
std::string record_texts(const pkg_info& pkg) {
    std::string texts = json_of([&](auto& m) { pkg_record_message(m, pkg); });
    if (pkg.du.index != 0) texts += "\n" + json_of([&](auto& m) { du_record_message(m, pkg, "System"); });
    for (const eu_info& eu : pkg.eu)
        texts += "\n" + json_of([&](auto& m) { eu_record_message(m, pkg, eu, "System"); });
    if (pkg.ee) texts += "\n" + json_of([&](auto& m) { ee_record_message(m, pkg, *pkg.ee, "System"); });
    return texts;
}

class RecordFilesTest : public ::testing::Test {
protected:
    void SetUp() override {
        for (const char* sub : {"pkg", "du", "eu", "ee"}) fs::create_directories(dir_ / sub);
    }
    void write_file(const std::string& name, std::string_view text) const {
        std::ofstream(dir_ / name) << text;
    }
    // Every file under the store, as "sub/name".
    std::vector<std::string> all_files() const {
        std::vector<std::string> names;
        for (const auto& entry : fs::recursive_directory_iterator(dir_))
            if (entry.is_regular_file()) names.push_back(fs::relative(entry.path(), dir_).string());
        std::sort(names.begin(), names.end());
        return names;
    }
    void store(const pkg_info& pkg) const {
        files_.store_du(pkg);
        files_.store_eu(pkg);
        files_.store_ee(pkg);  // nothing without an environment
        files_.store_pkg(pkg);
    }
    pkg_info load(const std::string& id) const {
        pkg_info back;
        back.id = id;
        files_.load_pkg(back);
        return back;
    }

    bus_test::TempDir scratch_;
    const fs::path dir_ = scratch_.path();
    RecordFiles files_{dir_.string(), "System", false};
};

TEST_F(RecordFilesTest, EveryKindOfRecordComesBackWhole) {
    pkg_info pkg = store_test::ordinary_package();
    pkg.disable_autostart = 1;
    pkg_info env = store_test::environment_package();
    // Absent optional texts stay absent in a fresh record, they do not become empty.
    pkg_info sparse;
    sparse.id = "8";
    sparse.du.index = 2;
    sparse.du.name = "n";
    sparse.du.pkgtype = PKGTYPE_EE;
    for (const pkg_info* p : {&pkg, &env, &sparse}) {
        store(*p);
        EXPECT_EQ(record_texts(load(p->id)), record_texts(*p)) << p->id;
    }
    EXPECT_EQ(all_files(), (std::vector<std::string>{"du/2", "du/7", "du/9", "ee/2", "eu/4", "eu/6", "pkg/3",
                                                     "pkg/5", "pkg/8"}));
    // The file is exactly the compact JSON text, without a trailing newline.
    std::ifstream file(dir_ / "eu/4");
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}),
              json_of([&](auto& m) { eu_record_message(m, pkg, pkg.eu[0], "System"); }));

    // A rewrite replaces the record and leaves nothing else.
    pkg.du.version = "2.0";
    pkg.du.vendor.reset();
    files_.store_du(pkg);
    EXPECT_EQ(record_texts(load("3")), record_texts(pkg));
    EXPECT_EQ(all_files().size(), 9u);
}

// The largest records pkgd can be asked to keep: an id at the file-name limit, and a unit whose
// file list alone is beyond a megabyte.
TEST_F(RecordFilesTest, RecordsAtTheLimitsAreWrittenAndReadBack) {
    pkg_info long_id = store_test::ordinary_package();
    long_id.id = std::string(255, 'i');
    pkg_info many_files = store_test::ordinary_package();
    std::string list;
    for (int i = 0; list.size() <= (1u << 20); ++i) list += "/usr/lib/demo/plugins/plugin-" + std::to_string(i) + ".so;";
    many_files.du.files = list;
    for (const pkg_info* p : {&long_id, &many_files}) {
        store(*p);
        // Not EXPECT_EQ: a failure would print megabytes.
        EXPECT_TRUE(record_texts(load(p->id)) == record_texts(*p)) << "id of " << p->id.size() << " characters";
    }
}

TEST_F(RecordFilesTest, MissingOrBrokenFilesLeaveTheRecordAsItWas) {
    pkg_info pkg;
    pkg.du.index = 11;
    EXPECT_EQ(files_.load_du(pkg, 5), -1);
    write_file("du/5", "[1,2]");
    write_file("eu/5", R"({"euid": "trunc)");
    write_file("ee/5", "");
    EXPECT_EQ(files_.load_du(pkg, 5), -1);
    files_.load_eu(pkg, 5);
    files_.load_ee(pkg, 5);
    EXPECT_EQ(std::tuple(pkg.du.index, pkg.eu.size(), pkg.ee.has_value()), std::tuple(11, 0u, false));
}

TEST_F(RecordFilesTest, MembersOfTheWrongTypeCountAsAbsent) {
    pkg_info pkg;
    pkg.du.name = "kept";
    pkg.du.size = 99;
    pkg.du.resolved = 1;
    write_file("du/4", R"({"size":"12","resolved":0.0,"name":7,"installedsize":5,"enabled":true})");
    EXPECT_EQ(files_.load_du(pkg, 4), 0);
    EXPECT_EQ(std::tuple(pkg.du.index, pkg.du.name, pkg.du.size, pkg.du.resolved, pkg.du.installedsize,
                         pkg.du.enabled),
              std::tuple(4, std::optional<std::string>("kept"), 99u, 1, 5u, 1));
    write_file("eu/4", R"({"euid":"EU-4","name":"four"})");
    write_file("pkg/9", R"({"DU":"4","EE":true,"resource.url":3,"disableautostart":1,"EU":4})");
    pkg_info typed;
    typed.id = "9";
    typed.url = "http://old/";
    files_.load_pkg(typed);
    EXPECT_EQ(std::tuple(typed.du.index, typed.ee.has_value(), typed.url.str(), typed.disable_autostart,
                         typed.eu.size()),
              std::tuple(0, false, "http://old/", 0, 0u));
}

TEST_F(RecordFilesTest, UnitLinksThatAreNotIndexesOrLeadNowhereRegisterNothing) {
    write_file("eu/4", R"({"euid":"EU-4","name":"four"})");
    write_file("eu/7", R"({"euid":"EU-7","name":"seven"})");
    write_file("pkg/9", R"({"EE":1,"DU":2,"EU":[4,"x",7,true,8.5,[1],3],"resource.url":"ftp://h/x"})");
    const pkg_info dangling = load("9");
    EXPECT_EQ(std::tuple(dangling.du.index, dangling.ee.has_value(), dangling.url.str()),
              std::tuple(0, false, "ftp://h/x"));
    std::vector<std::string> units;
    for (const eu_info& eu : dangling.eu)
        units.push_back(std::to_string(eu.index) + ":" + eu.name.value_or("-"));
    EXPECT_EQ(units, (std::vector<std::string>{"4:four", "7:seven"}));
}

TEST_F(RecordFilesTest, IdsThatCouldReachOtherFilesAreRefusedAndAMissingDirectoryDoesNoHarm) {
    const pkg_info pkg = store_test::ordinary_package();
    store(pkg);
    const std::vector<std::string> stored = all_files();
    fs::create_directory(dir_ / "pkg/sub");
    for (const char* id : {"", ".", "..", ".3", "../du/7", "sub/x", "/abs"}) {
        pkg_info odd = pkg;
        odd.id = id;
        EXPECT_EQ(files_.pkg_path(id), "") << id;
        files_.store_pkg(odd);
        EXPECT_EQ(files_.delete_pkg(odd), -1) << id;
    }
    EXPECT_EQ(all_files(), stored);
    EXPECT_EQ(files_.pkg_path("42"), dir_.string() + "/pkg/42");
    fs::remove_all(dir_ / "eu");
    files_.store_eu(pkg);
    EXPECT_FALSE(fs::exists(dir_ / "eu"));
}

}  // namespace

// Power fails before every file-system operation of an install, an update and an uninstall; after
// the reboot each record file is its old or its new version, loadable, never empty or torn, and
// once the last operation is done every change is on storage.
#include <gtest/gtest.h>

#include <array>
#include <filesystem>
#include <map>

#include "pkgd/record_files.hpp"
#include "sample_records.hpp"
#include "sandbox/power_cut_storage.hpp"
#include "temp_dir.hpp"

namespace {

using namespace pkgd;
using Snapshot = std::map<std::string, std::string>;  // "du/7" -> the record as loaded, "" for none

// Every file under `dir` as the record loaders read it.
Snapshot load_all(const std::string& dir) {
    Snapshot records;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(dir)) {
        ubus::BlobBuf msg;
        if (entry.is_regular_file())
            records[entry.path().lexically_relative(dir)] =
                ubus::json_load_file(msg, entry.path()) ? ubus::json_format(msg) : "?";
    }
    return records;
}

// A script of record writes, each two letters and a blank: "m" makes the directories; "p", "d",
// "e", "u" store the package, unit, environment and execution-unit files, upper case deletes
// them; then "o" or "n" for the old or the new record.
void run(const RecordFiles& f, std::string_view script, const pkg_info& old_pkg, const pkg_info& new_pkg) {
    for (std::size_t i = 0; i + 1 < script.size(); i += 3) {
        const pkg_info& pkg = script[i + 1] == 'o' ? old_pkg : new_pkg;
        using Write = void (RecordFiles::*)(const pkg_info&) const;
        static constexpr Write kWrites[] = {
            &RecordFiles::store_pkg, &RecordFiles::store_du,  &RecordFiles::store_ee, &RecordFiles::store_eu,
            &RecordFiles::delete_du, &RecordFiles::delete_ee, &RecordFiles::delete_eu};
        if (script[i] == 'm') f.make_directories();
        if (script[i] == 'P') f.delete_pkg(pkg);
        if (const std::size_t k = std::string_view("pdeuDEU").find(script[i]); k != std::string_view::npos)
            (f.*kWrites[k])(pkg);
    }
}

// A scratch record directory as the system ships it: du/ and eu/ are there, pkg/ and ee/ are not.
sandbox::PowerCutStorage shipped_storage(const std::string& dir, sandbox::PowerCutStorage::Names names = {}) {
    std::filesystem::create_directories(dir + "/du"), std::filesystem::create_directories(dir + "/eu");
    return sandbox::PowerCutStorage(dir, {dir, dir + "/du", dir + "/eu"}, names);
}

TEST(PowerCut, EveryRecordIsOldOrNewAndWholeWhereverPowerFails) {
    pkg_info old_pkg = store_test::ordinary_package();
    old_pkg.ee = store_test::environment_package().ee;
    pkg_info new_pkg = old_pkg;
    new_pkg.du.version = new_pkg.ee->version = "2.0";
    new_pkg.eu = {{4, "EU-4", "demo-2"}, {8, "EU-8", "demo-new"}};
    // An install writes the unit and the package as soon as it knows them, then again in full.
    const char* install_old = "mo do po do eo uo po";
    const std::vector<std::array<const char*, 3>> rows{{"first install", "", "mn dn pn dn en un pn"},
                                                       {"update", install_old, "dn en un pn"},
                                                       {"uninstall", install_old, "Do Eo Uo Po"}};
    for (const auto& [label, before, change] : rows) {
        SCOPED_TRACE(label);
        const bus_test::TempDir real;  // where the records are written before and after, for reference
        shipped_storage(real.path());  // for its directories
        const RecordFiles real_files(real.path(), "System", false);
        run(real_files, before, old_pkg, new_pkg);
        Snapshot expected[2] = {load_all(real.path())};
        run(real_files, change, old_pkg, new_pkg);
        expected[1] = load_all(real.path());
        for (const auto& [name, text] : expected[1]) expected[0][name];  // every name in both, "" for none
        for (const auto& [name, text] : expected[0]) expected[1][name];
        for (const auto names :
             {sandbox::PowerCutStorage::Names::on_directory_flush, sandbox::PowerCutStorage::Names::at_once})
            for (std::size_t n = 0;; ++n) {
                const bus_test::TempDir scratch;
                sandbox::PowerCutStorage disk = shipped_storage(scratch.path(), names);
                const RecordFiles files(scratch.path(), "System", false, disk);
                run(files, before, old_pkg, new_pkg);
                disk.cut_before(disk.operations() + n);
                run(files, change, old_pkg, new_pkg);
                disk.reboot();
                RecordFiles(scratch.path(), "System", false).remove_stale_temporaries();  // as at start-up
                Snapshot now = load_all(scratch.path());
                for (auto& [name, old_text] : expected[0])
                    EXPECT_TRUE(now[name] == expected[1][name] || (!disk.powered() && now[name] == old_text))
                        << name << " cut before " << n << " in mode " << int(names) << ": " << now[name];
                EXPECT_EQ(now.size(), expected[0].size()) << "stray files, cut before " << n;
                if (disk.powered()) break;
            }
    }
}

}  // namespace

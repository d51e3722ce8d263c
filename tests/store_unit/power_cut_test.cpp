// Power fails at every file-system operation of an install, an update and an uninstall; after the
// reboot every record file is its old version or its new one, loadable, never empty or torn, and
// once the last operation is done the new records are all on storage.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>

#include "pkgd/record_files.hpp"
#include "sample_records.hpp"
#include "sandbox/power_cut_storage.hpp"
#include "temp_dir.hpp"

namespace {

using namespace pkgd;
namespace fs = std::filesystem;
using Snapshot = std::map<std::string, std::string>;  // "du/7" -> the record as loaded
using Step = std::function<void(const RecordFiles&)>;

// Every visible record file under `dir`, as the loaders read it; hidden names are skipped, as
// at start-up.
Snapshot load_all(const std::string& dir) {
    Snapshot records;
    for (const char* kind : {"pkg", "du", "eu", "ee"}) {
        std::error_code ec;
        for (const auto& entry : fs::directory_iterator(dir + "/" + kind, ec)) {
            const std::string name = entry.path().filename();
            ubus::BlobBuf msg;
            if (name.front() != '.')
                records[std::string(kind) + "/" + name] =
                    ubus::json_load_file(msg, entry.path()) ? ubus::json_format(msg) : "(unreadable)";
        }
    }
    return records;
}

// As an install writes them: the unit and the package once the package is known, then again with
// its environment and execution units.
std::vector<Step> install_steps(const pkg_info& pkg) {
    return {[](const RecordFiles& f) { f.make_directories(); },
            [&](const RecordFiles& f) { f.store_du(pkg); },
            [&](const RecordFiles& f) { f.store_pkg(pkg); },
            [&](const RecordFiles& f) { f.store_du(pkg); },
            [&](const RecordFiles& f) { f.store_ee(pkg); },
            [&](const RecordFiles& f) { f.store_eu(pkg); },
            [&](const RecordFiles& f) { f.store_pkg(pkg); }};
}

void run(const std::vector<Step>& steps, const RecordFiles& files) {
    for (const Step& step : steps) step(files);
}

struct Row {
    const char* label;
    std::vector<Step> before;
    std::vector<Step> change;  // a record may pass through versions of its own on the way
};

TEST(PowerCut, EveryRecordIsOneOfItsVersionsWholeWhereverPowerFails) {
    pkg_info old_pkg = store_test::ordinary_package();
    old_pkg.ee = store_test::environment_package().ee;
    pkg_info new_pkg = old_pkg;
    new_pkg.du.version = "2.0";
    new_pkg.password = "n3w";
    new_pkg.eu = {{4, "EU-4", "demo-2"}, {8, "EU-8", "demo-new"}};
    new_pkg.ee->version = "2.1";
    const std::vector<Row> rows{
        {"first install", {}, install_steps(new_pkg)},
        {"update", install_steps(old_pkg),
         {[&](const RecordFiles& f) { f.store_du(new_pkg); }, [&](const RecordFiles& f) { f.delete_eu(old_pkg); },
          [&](const RecordFiles& f) { f.store_ee(new_pkg); }, [&](const RecordFiles& f) { f.store_eu(new_pkg); },
          [&](const RecordFiles& f) { f.store_pkg(new_pkg); }}},
        {"uninstall", install_steps(old_pkg),
         {[&](const RecordFiles& f) { f.delete_du(old_pkg); }, [&](const RecordFiles& f) { f.delete_ee(old_pkg); },
          [&](const RecordFiles& f) { f.delete_eu(old_pkg); }, [&](const RecordFiles& f) { f.delete_pkg(old_pkg); }}},
    };
    std::size_t cut_points = 0;
    for (const Row& row : rows) {
        SCOPED_TRACE(row.label);
        // The records before the change and after each of its steps, written to a real directory.
        bus_test::TempDir real;
        fs::create_directories(real.path() + "/du"), fs::create_directories(real.path() + "/eu");
        const RecordFiles real_files(real.path(), "System", false);
        run(row.before, real_files);
        std::vector<Snapshot> versions{load_all(real.path())};
        for (const Step& step : row.change) step(real_files), versions.push_back(load_all(real.path()));
        ASSERT_NE(versions.front(), versions.back());
        for (std::size_t n = 0;; ++n, ++cut_points) {
            bus_test::TempDir scratch;
            const std::string& dir = scratch.path();
            sandbox::PowerCutStorage disk(dir, {dir, dir + "/du", dir + "/eu"});
            const RecordFiles files(dir, "System", false, disk);
            run(row.before, files);
            disk.cut_before(disk.operations() + n);
            run(row.change, files);
            disk.reboot();
            const Snapshot now = load_all(dir);
            if (disk.powered()) {
                EXPECT_EQ(now, versions.back()) << "with every operation done";
                break;
            }
            Snapshot names = now;
            for (const Snapshot& v : versions) names.insert(v.begin(), v.end());
            const auto version = [](const Snapshot& s, const std::string& name) {
                const auto it = s.find(name);
                return it == s.end() ? std::nullopt : std::optional(it->second);
            };
            for (const auto& [name, ignored] : names) {
                const auto found = version(now, name);
                EXPECT_TRUE(std::any_of(versions.begin(), versions.end(),
                                        [&](const Snapshot& v) { return version(v, name) == found; }))
                    << name << " after a cut before operation " << n << ": " << found.value_or("(none)");
            }
        }
    }
    std::printf("power cut at %zu points\n", cut_points);
    EXPECT_GT(cut_points, 50u);
}

}  // namespace

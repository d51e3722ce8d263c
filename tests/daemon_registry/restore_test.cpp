// pkgd's registry rebuilt at start-up from the package record files an earlier run left.
#include <gtest/gtest.h>

#include <set>

#include "registry_gateway.hpp"

namespace pkgd::testing {
namespace {

// A program of the package "run" only: a copy of the root's busybox, run as "sleep".
constexpr const char* kProgram = "/opt/app/bin/sleep";

void seed_records(const fs::path& root) {
    seed(root, installed_package("7", 7));
    seed(root, installed_package("9", 9));
    seed(root, installed_package("alpha", 11));
    pkg_info run = installed_package("run", 12);
    run.du.files = std::string("/etc/init.d/app;") + kProgram + ";";
    seed(root, run);
    fs::create_directories(root / "opt/app/bin");
    fs::copy_file(root / "bin/busybox", root / std::string(kProgram).substr(1));

    // No packages of pkgd's: hidden, no deployment unit (or one of the wrong type), not JSON, not
    // a JSON object.
    const fs::path dir = root / "usr/local/package/pkg";
    fs::copy_file(dir / "7", dir / ".3");
    write_text(dir / "no-du", R"({"EU":[1],"resource.url":"http://feed.example/x.ipk"})");
    write_text(dir / "text-du", R"({"DU":"7"})");
    write_text(dir / "broken", R"({"DU":7,)");
    write_text(dir / "array", R"([{"DU":7}])");
}

TEST(Restore, RecordFilesComeBackAsInstalledPackagesTheLastReadListedFirst) {
    auto options = pkgd_gateway();
    options.prepare = seed_records;
    sandbox::Gateway gw(options);
    ASSERT_TRUE(gw.up()) << gw.error();
    BusProbe probe(gw);
    ASSERT_TRUE(probe.wait_for_object(kEnvironment));

    const std::set<std::string> restored = {"7", "9", "alpha", "run"};
    std::set<std::string> objects;
    probe.bus().lookup(object_of("*"), [&](const ubus::ObjectInfo& o) { objects.emplace(o.path); });
    EXPECT_EQ(objects,
              (std::set<std::string>{object_of("7"), object_of("9"), object_of("alpha"), object_of("run")}));

    std::vector<std::string> expected;
    for (const auto& entry : fs::directory_iterator(gw.path("/usr/local/package/pkg")))
        if (restored.contains(entry.path().filename()))
            expected.insert(expected.begin(), entry.path().filename());
    const CallResult list = probe.call(kPackages, "List");
    EXPECT_EQ(listed_ids(list), expected);
    EXPECT_NE(list.json.find(R"("Id":"9","UUID":"uuid-9","Name":"app-9")"), std::string::npos) << list.json;

    for (const std::string& id : restored) EXPECT_EQ(wait_status(probe, id, "Installed"), "Installed") << id;
    sandbox::InsideProcess program = gw.spawn({kProgram, "600"});
    ASSERT_TRUE(program.started()) << program.error();
    EXPECT_EQ(wait_status(probe, "run", "Running"), "Running");
    EXPECT_EQ(wait_status(probe, "7", "Installed"), "Installed");
}

}  // namespace
}  // namespace pkgd::testing

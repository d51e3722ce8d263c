// Restoring the registry from the record files, and the objects that serve it: the package's own
// "Get" and the execution environment's "Get".
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include "daemon/ee_object.hpp"
#include "daemon/restore.hpp"
#include "daemon_fixture.hpp"

namespace daemon_test {
namespace {

using RestoreTest = DaemonTest;

TEST_F(RestoreTest, PackagesComeBackWithTheirUnitsTheLastReadFirstAndOtherFilesAreSkipped) {
    pkg_info seven = installed_package("7", 7);
    for (std::int32_t i : {2, 3}) seven.eu.push_back({i, "EU-" + std::to_string(i), "init-" + std::to_string(i)});
    seed(seven);
    write("7", R"({"DU":7,"EU":[2,"x",3],"resource.url":"ftp://h/a.ipk","resource.username":"user",)"
               R"("resource.password":"pw","disableautostart":true})");
    pkg_info env = installed_package("env", 8);
    env.ee.emplace().index = 4;
    env.ee->name = "lxc";
    seed(env);
    // Not packages of pkgd's: hidden, no deployment unit (or one of the wrong type), not JSON, not a
    // JSON object, not a regular file.
    fs::copy_file(dir_ / "pkg/7", dir_ / "pkg/.3");
    write("no-du", R"({"EU":[1],"resource.url":"http://feed.example/x.ipk"})");
    write("text-du", R"({"DU":"7"})");
    write("broken", R"({"DU":7,)");
    write("array", R"([{"DU":7}])");
    fs::create_directory(dir_ / "pkg/dir");
    ASSERT_EQ(::mkfifo((dir_ / "pkg/fifo").c_str(), 0644), 0);
    // A device that would feed a reader without end, where privileges allow making one.
    (void)::mknod((dir_ / "pkg/zero").c_str(), S_IFCHR | 0644, makedev(1, 5));

    restore_registered_packages(d_);

    std::vector<std::string> last_read_first;
    for (const auto& entry : fs::directory_iterator(dir_ / "pkg"))
        if (const std::string name = entry.path().filename(); name == "7" || name == "env")
            last_read_first.insert(last_read_first.begin(), name);
    std::vector<std::string> ids;
    for (const registered_pkg& entry : d_.s_pkgs) ids.push_back(entry.pkg->id);
    EXPECT_EQ(ids, last_read_first);
    EXPECT_EQ(describe(d_.s_pkgs.find_object(object_of("7"))),
              "7 status=4 v1.0 eu=2:init-2,3:init-3, ee=- ftp://h/a.ipk user:pw noauto=1");
    EXPECT_EQ(describe(d_.s_pkgs.find_object(object_of("env"))),
              "env status=4 v1.0 eu= ee=4:lxc http://feed.example/env.ipk : noauto=0");
    for (const char* id : {"7", "env"}) EXPECT_TRUE(on_bus(object_of(id))) << id;
    for (const char* id : {".3", "no-du", "text-du", "broken", "array", "dir", "fifo", "zero"})
        EXPECT_FALSE(on_bus(object_of(id))) << id;
}

// The table itself is seen through the bus in the lifecycle sandbox test.
TEST_F(RestoreTest, GetAnswersAnEmptyBodyOnceThePackageIsGone) {
    seed(installed_package("1", 1));
    restore_registered_packages(d_);
    d_.s_pkgs.unlink(object_of("1"));
    EXPECT_EQ(call(object_of("1"), "get"), std::pair(0, std::string(R"({"Header":{"Name":"OK"},"Body":{}})")));
}

TEST_F(RestoreTest, EnvironmentGetReportsTheSystemsFiguresAndZerosWhenTheyCannotBeRead) {
    d_.ee.id = "System";
    d_.ee.name = "System";
    d_.s_ee_object = ee_object_name("System");
    ASSERT_EQ(add_ee_object(d_).status, ubus::kOk);
    const std::string head = R"({"Header":{"Name":"OK"},"Body":{"Id":"System","Name":"System","Enabled":false,)"
                             R"("Version":"","Vendor":"","Type":"","Resources":)";
    EXPECT_EQ(call(d_.s_ee_object.view(), "Get").second,
              head + R"({"Memory":{"Total":0,"Free":0,"Usage":0.000000},"Storage":{"Total":0,"Free":0,)"
                     R"("Usage":0.000000}},"Status":"Active"}})");
    // Only the first two lines count; storage is counted in 4 kB blocks, whatever the block size.
    sys_.memory = "MemTotal: 1000 kB\nMemFree: 250 kB\nMemTotal: 5 kB\n";
    sys_.disk = fs_figures{1024, 1000, 100};
    EXPECT_EQ(call(d_.s_ee_object.view(), "Get").second,
              head + R"({"Memory":{"Total":1000,"Free":250,"Usage":0.750000},"Storage":{"Total":4000,)"
                     R"("Free":400,"Usage":0.900000}},"Status":"Active"}})");
}

}  // namespace
}  // namespace daemon_test

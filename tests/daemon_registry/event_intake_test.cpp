// LCM events applied to the registry: statuses, reloads from the record files, removal, and
// events that change nothing.
#include <tuple>

#include "daemon/event_intake.hpp"
#include "daemon/restore.hpp"
#include "daemon_fixture.hpp"
#include "pkgd/lcm_events.hpp"

namespace daemon_test {
namespace {

class EventIntake : public DaemonTest {
protected:
    EventIntake() {
        for (std::int32_t du = 1; du <= 4; ++du) seed(installed_package(std::to_string(du), du));
        restore_registered_packages(d_);
    }
    void deliver(std::string_view json) {
        ubus::BlobBuf msg;
        ASSERT_TRUE(ubus::json_load(msg, json)) << json;
        receive_event(d_, kLcmEventType, msg.members());
    }
    void deliver(const lcm_event& event, std::string_view package_object) {
        ubus::BlobBuf msg;
        lcm_event_message(msg, event.code, event.name, kLcmPackageIdKey, package_object);
        receive_event(d_, kLcmEventType, msg.members());
    }
    std::string record(std::string_view id) { return describe(d_.s_pkgs.find_object(object_of(id))); }
};

TEST_F(EventIntake, StepsMoveTheStatusAndReloadsReadTheFilesWithoutRepeatingUnits) {
    // Before each step the files hold a new version and two units: a reload shows both, once.
    const std::tuple<lcm_event, std::int32_t, bool> steps[] = {
        {kLcmDownloading, PKG_STATUS_DOWNLOADING, false}, {kLcmDownloadComplete, PKG_STATUS_DOWNLOADED, true},
        {kLcmInstalling, PKG_STATUS_INSTALLING, false},   {kLcmInstallComplete, PKG_STATUS_INSTALLED, true},
        {kLcmDeleting, PKG_STATUS_UNINSTALLING, false},   {kLcmDeleteFailed, PKG_STATUS_INSTALLED, true},
        {kLcmUpdating, PKG_STATUS_UPDATING, false},       {kLcmUpdateFailed, PKG_STATUS_INSTALLED, false},
        {kLcmUpdating, PKG_STATUS_UPDATING, false},       {kLcmUpdateComplete, PKG_STATUS_INSTALLED, true},
    };
    std::string version = "1.0", units;
    for (const auto& [event, status, reloads] : steps) {
        pkg_info changed = installed_package("1", 1);
        changed.du.version = "v" + std::to_string(event.code);
        changed.eu = {{event.code, {}, "a"}, {event.code + 100, {}, "b"}};
        seed(changed);
        deliver(event, object_of("1"));
        if (reloads) {
            version = changed.du.version.str();
            units = std::to_string(event.code) + ":a," + std::to_string(event.code + 100) + ":b,";
        }
        EXPECT_EQ(record("1"), "1 status=" + std::to_string(status) + " v" + version + " eu=" + units +
                                   " ee=- http://feed.example/1.ipk : noauto=0")
            << event.name;
    }
    // Without its package file a reload still drops the units (the version is kept); the status
    // moves all the same.
    fs::remove(dir_ / "pkg/1");
    deliver(kLcmDownloadComplete, object_of("1"));
    EXPECT_EQ(record("1"), "1 status=2 vv25 eu= ee=- http://feed.example/1.ipk : noauto=0");
}

TEST_F(EventIntake, CompletedRemovalsAndFailedInstallsTakeThePackageAndItsObjectAway) {
    deliver(kLcmDeleteComplete, object_of("1"));
    deliver(kLcmDownloadFailed, object_of("2"));
    deliver(kLcmInstallFailed, object_of("3"));
    for (const char* id : {"1", "2", "3"}) EXPECT_FALSE(on_bus(object_of(id))) << id;
    ASSERT_EQ(d_.s_pkgs.size(), 1u);
    EXPECT_EQ(d_.s_pkgs.begin()->pkg->id, "4");
    EXPECT_TRUE(on_bus(object_of("4")));
}

TEST_F(EventIntake, MalformedEventsOtherCodesAndUnknownNamesChangeNothing) {
    const std::string one = object_of("1");
    const std::string before = record("1");
    for (const std::string& event : std::initializer_list<std::string>{
             R"({"Header":{"Code":20}})",
             R"({"Body":{"PackageId":")" + one + R"("}})",
             R"({"Header":{"Code":"20"},"Body":{"PackageId":")" + one + R"("}})",
             R"({"Header":[20],"Body":{"PackageId":")" + one + R"("}})",
             R"({"Header":{"Code":20},"Body":{"PackageId":1}})",
             // Only the identifier, or a name no package has.
             R"({"Header":{"Code":7},"Body":{"PackageId":"1"}})",
             R"({"Header":{"Code":20},"Body":{"PackageId":")" + one + R"(0"}})",
             // Codes without a reaction.
             R"({"Header":{"Code":10},"Body":{"PackageId":")" + one + R"("}})",
             R"({"Header":{"Code":12},"Body":{"PackageId":")" + one + R"("}})",
         })
        deliver(event);
    EXPECT_EQ(record("1"), before);
    EXPECT_EQ(d_.s_pkgs.size(), 4u);
}

}  // namespace
}  // namespace daemon_test

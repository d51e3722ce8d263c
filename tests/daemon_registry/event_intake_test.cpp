// LCM events on the bus carried into pkgd's registry: statuses, reloads from the record files,
// removal, and events that must change nothing.
#include <gtest/gtest.h>

#include <tuple>

#include "registry_gateway.hpp"

namespace registry_test {
namespace {

TEST(EventIntake, EventsMoveAPackageThroughItsStatusesAndMalformedOnesChangeNothing) {
    sandbox::Gateway gw(pkgd_gateway([](const fs::path& root) {
        for (std::int32_t du = 1; du <= 4; ++du) seed(root, installed_package(std::to_string(du), du));
    }));
    ASSERT_TRUE(gw.up()) << gw.error();
    gwtest::Client probe(gw);
    ASSERT_TRUE(probe.wait_for_object(kEnvironment));

    const std::string one = object_of("1");
    const std::string before = body_json(probe.call(one, "Get"));
    const std::string malformed[] = {
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
    };
    for (const std::string& event : malformed) {
        ubus::BlobBuf msg;
        ASSERT_TRUE(ubus::json_load(msg, event));
        ASSERT_EQ(probe.bus().send_event(kLcmEventType, msg.members()), ubus::kOk);
    }
    // Events reach pkgd in the order they were sent: once this one is seen, so were the others.
    send_lcm(probe, kLcmDownloading, object_of("4"));
    ASSERT_EQ(wait_status(probe, "4", "Downloading"), "Downloading");
    EXPECT_EQ(body_json(probe.call(one, "Get")), before);

    // Install, a failed removal, a failed and a completed update, a removal: every step changes
    // the status, so each is seen to have been handled. Before each, the files hold a new version.
    const std::tuple<lcm_event, const char*, bool> steps[] = {
        {kLcmDownloading, "Downloading", false}, {kLcmDownloadComplete, "Downloaded", true},
        {kLcmInstalling, "Installing", false},   {kLcmInstallComplete, "Installed", true},
        {kLcmDeleting, "Uninstalling", false},   {kLcmDeleteFailed, "Installed", true},
        {kLcmUpdating, "Updating", false},       {kLcmUpdateFailed, "Installed", false},
        {kLcmUpdating, "Updating", false},       {kLcmUpdateComplete, "Installed", true},
    };
    std::string version = "1.0";
    for (const auto& [event, status, reloads] : steps) {
        pkg_info changed = installed_package("1", 1);
        changed.du.version = "v" + std::to_string(event.code);
        records_in(gw.root()).store_du(changed);
        send_lcm(probe, event, one);
        ASSERT_EQ(wait_status(probe, "1", status), status) << event.name;
        if (reloads) version = changed.du.version.str();
        EXPECT_NE(body_json(probe.call(one, "Get")).find(R"("Version":")" + version + '"'), std::string::npos)
            << event.name;
    }

    const std::pair<lcm_event, const char*> removals[] = {
        {kLcmDeleteComplete, "1"}, {kLcmDownloadFailed, "2"}, {kLcmInstallFailed, "3"}};
    for (const auto& [event, id] : removals) send_lcm(probe, event, object_of(id));
    for (const char* id : {"1", "2", "3"}) EXPECT_TRUE(probe.wait_until_gone(object_of(id))) << id;
    EXPECT_EQ(listed_ids(probe.call(kPackages, "List")), (std::vector<std::string>{"4"}));
}

}  // namespace
}  // namespace registry_test

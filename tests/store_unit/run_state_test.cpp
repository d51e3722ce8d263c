// Deciding whether a package runs: the matching of file identities and the status texts (the
// sandbox tests run a real program reached through links); what the service manager is asked.
#include "pkgd/run_state.hpp"

#include <gtest/gtest.h>

#include "ubus/json.hpp"

namespace {

using namespace pkgd;

TEST(RunState, MatchingNeedsDeviceAndInodeBoth) {
    const file_id a{1, 100}, b{1, 200}, c{2, 100};
    EXPECT_TRUE(any_file_running({b, a}, std::vector<file_id>{c, a}));
    EXPECT_FALSE(any_file_running({a}, std::vector<file_id>{b, c}));
    EXPECT_FALSE(any_file_running({}, std::vector<file_id>{a}));
    EXPECT_FALSE(any_file_running({a}, {}));
}

TEST(RunState, OnlyAnInstalledPackageIsLookedAtAndTheOtherStatesReadAsTheirNames) {
    pkg_info pkg;
    pkg.du.files = "/proc/self/exe;";  // this test's own executable certainly runs
    const std::pair<std::int32_t, std::string_view> cases[] = {{PKG_STATUS_INSTALLED, "Running"},
                                                               {PKG_STATUS_UPDATING, "Updating"},
                                                               {PKG_STATUS_UNINSTALLING, "Uninstalling"},
                                                               {PKG_STATUS_DOWNLOADED, "Downloaded"},
                                                               {7, "New"}};
    for (const auto& [status, text] : cases) {
        pkg.status = status;
        EXPECT_EQ(package_get_status(pkg), text) << status;
    }
    pkg.status = PKG_STATUS_INSTALLED;
    pkg.du.files.reset();
    EXPECT_EQ(package_ispkgactive(pkg), -1);
    EXPECT_EQ(package_get_status(pkg), "Installed");
}

// The "operate" request names each unit's init script (units without one are left out); an
// environment package names its environment's script only, or nothing at all.
TEST(OperateMessage, UnitScriptsOrTheEnvironmentsScript) {
    const auto message = [](const pkg_info& pkg) {
        ubus::BlobBuf msg;
        operate_message(msg, pkg, "start");
        return ubus::json_format(msg);
    };
    pkg_info pkg;
    EXPECT_EQ(message(pkg), R"({"Operation":"start","name":[]})");
    pkg.eu = {{4, "EU-4", "demo"}, {8, "EU-8", std::nullopt}, {6, "EU-6", "watch"}};
    EXPECT_EQ(message(pkg), R"({"Operation":"start","name":["demo","watch"]})");
    pkg.du.pkgtype = PKGTYPE_EE;
    EXPECT_EQ(message(pkg), R"({"Operation":"start"})");
    pkg.ee.emplace().file = "lxc";
    EXPECT_EQ(message(pkg), R"({"Operation":"start","name":["lxc"]})");
}

}  // namespace

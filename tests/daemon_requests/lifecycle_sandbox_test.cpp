// The life of a package in a sandbox gateway, driven through the bus as a management client drives
// pkgd: install, list, start, latest-version, stop, update, uninstall, then an install through the
// Packages object with a delete asked for while it runs. Each step is judged by what the client sees: the LCM events and one
// result per operation, the registry, the record files, the catalog and the data model.
#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <fstream>
#include <map>

#include "gateway_client.hpp"
#include "poll.hpp"
#include "sandbox/feed/service_feed.hpp"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using V = std::vector<std::string>;

constexpr std::string_view kOps = "SoftwareModules.Package.System";
const std::string kPackages = "Services.Management.LCM.ExecutionEnvironments.System.Packages";

// A sandbox gateway with pkgd, the simulator and a feed, and a client listening to the events.
class RequestsInGateway : public ::testing::Test {
protected:
    static sandbox::GatewayOptions gateway_options(const fs::path& dir) {
        sandbox::GatewayOptions options = gwtest::named_gateway();
        options.pkgd = options.simulator = true;
        options.feed_dir = dir;
        options.feed_user = "feeder";
        options.feed_password = "pa$$ 'w0rd";
        return options;
    }
    void SetUp() override {
        ASSERT_TRUE(gw.up()) << gw.error();
        ASSERT_TRUE(bus.wait_for_object(kPackages.substr(0, kPackages.rfind('.'))));
        ASSERT_TRUE(bus.listen("Services.Management.LCM") &&
                    bus.listen("SOFTWAREMODULES.PACKAGE.OPERATIONSRESULT"));
    }
    int operate(std::string_view method, int request, const std::string& fields) {
        return bus
            .call(kOps, method,
                  R"({"RequestID":)" + std::to_string(request) + R"(,"OperateID":1,"OperateMID":1)" + fields + "}")
            .status;
    }

    // Versions of "app" (see ServiceFeed): their URLs.
    std::string publish(const std::string& version, std::map<std::string, std::string> scripts = {}) {
        return gw.feed_url("http") + "/" + feed.publish(gw.feed_pki_dir(), version, std::move(scripts));
    }

    const sandbox::feed::ScratchDir scratch{REQUESTS_FEED_SCRATCH_DIR, "feed"};
    sandbox::feed::ServiceFeed feed{scratch.path(), "app", "app for the tests"};
    sandbox::Gateway gw{gateway_options(scratch.path())};
    gwtest::Client bus{gw};
};

TEST_F(RequestsInGateway, APackageIsInstalledListedUpdatedAndUninstalledThroughTheBus) {
    const std::string creds = R"(,"Username":"feeder","Password":"pa$$ 'w0rd")";
    const auto get = [&](std::string_view id) {
        return bus.call(kPackages + "." + std::string(id), "Get").first();
    };
    const auto shows = [&](std::string_view id, std::string_view text) {
        return testsupport::poll_until(60s, [&] { return get(id).find(text) != std::string::npos; });
    };
    EXPECT_EQ(operate("Install", 1, ""), 2);  // no URL
    EXPECT_EQ(operate("Update", 1, R"(,"UUID":"none")"), 9);
    EXPECT_EQ(operate("Uninstall", 1, ""), 0);  // nothing selected, nothing queued

    const std::string v1 = publish("1.0");
    EXPECT_EQ(operate("Install", 1, R"(,"URL":")" + v1 + "\"" + creds), 0);
    EXPECT_EQ(bus.story(5, 60s), (V{"20", "6", "21", "result 0", "8"}));
    EXPECT_TRUE(shows("1", R"("Version":"1.0")") && shows("1", R"("Status":"Installed")")) << get("1");
    const std::string list = bus.call(kOps, "List").first();
    const auto uuid_at = list.find(R"("UUID":")") + 8;
    const std::string uuid = list.substr(uuid_at, list.find('"', uuid_at) - uuid_at);
    EXPECT_EQ(list, R"({"List":[{"URL":")" + v1 + R"(","UUID":")" + uuid + R"(","Version":"1.0"}]})");
    EXPECT_TRUE(fs::exists(gw.path("/usr/local/package/pkg/1")));
    EXPECT_NE(gwtest::sim_state(gw, "catalog").find(uuid), std::string::npos);
    EXPECT_NE(gwtest::sim_state(gw, "datamodel").find("ExecutionUnit."), std::string::npos);

    const std::string ok = R"({"Header":{"Name":"OK"}})";
    EXPECT_EQ(bus.call(kPackages + ".1", "Start").first(), ok);
    EXPECT_TRUE(shows("1", R"("Status":"Running")")) << get("1");
    const std::string v2 = publish("1.10");
    EXPECT_EQ(bus.call(kPackages + ".1", "IsLatestVersion").first(), R"({"Header":{"Name":"OK"},"Body":{"Result":false}})");
    EXPECT_EQ(bus.call(kPackages + ".1", "Stop").first(), ok);
    EXPECT_TRUE(shows("1", R"("Status":"Installed")")) << get("1");
    EXPECT_EQ(operate("Update", 2, R"(,"UUID":")" + uuid + R"(","URL":")" + v2 + "\""), 0);
    EXPECT_TRUE(shows("1", R"("Version":"1.10")") && shows("1", R"("Status":"Installed")")) << get("1");
    EXPECT_EQ(operate("Uninstall", 3, R"(,"UUID":")" + uuid + "\""), 0);
    EXPECT_TRUE(bus.wait_until_gone(kPackages + ".1", 60s));
    EXPECT_FALSE(fs::exists(gw.path("/usr/local/package/pkg/1")) || fs::exists(gw.path("/usr/bin/app")));
    EXPECT_EQ(gwtest::sim_state(gw, "catalog").find(uuid), std::string::npos);

    // A delete asked for while the install waits or runs is served after it.
    const auto host = v2.substr(7, v2.find('/', 7) - 7);
    EXPECT_EQ(bus.call(kPackages, "add",
                       R"({"Id":"mine","Source":{"Protocol":"HTTP","Address":")" + host +
                           R"(","Resource":"app_1.10_all.ipk","Credentials":{"Username":"feeder",)"
                           R"("Password":"pa$$ 'w0rd"}}})")
                  .first(),
              R"({"Header":{"Name":"OK"},"Body":{"Id":"mine"}})");
    EXPECT_EQ(bus.call(kPackages + ".mine", "Delete").first(), ok);
    EXPECT_TRUE(bus.wait_until_gone(kPackages + ".mine", 60s));
    EXPECT_EQ(bus.story(22, 60s),
              (V{"20", "6",  "21",       "result 0", "8",  "10",       "11", "23", "11", "result 0", "25",
                 "22", "13", "result 0", "20",       "6",  "21", "result 0", "8",  "22", "13",       "result 0"}));
}

}  // namespace

// A worker killed in the middle of opkg's install, then a daemon killed with its worker while
// another install waits: each operation ends with one result, and what the killed ones had done
// is undone in the registry, the record files and opkg's state.
TEST_F(RequestsInGateway, KilledWorkersAndARestartedDaemonEndEachOperationWithOneResult) {
    // While /tmp/hold exists the package's postinst notes its process group (its worker's) and waits.
    const std::string url = publish("1.0",
                                    {{"postinst", "#!/bin/sh\n[ -e /tmp/hold ] || exit 0\n"
                                                  "cut -d' ' -f5 /proc/$$/stat >/tmp/worker.pgid\n"
                                                  "while [ -e /tmp/hold ]; do sleep 1; done\n"}});
    const std::string install = R"(,"URL":")" + url + R"(","Username":"feeder","Password":"pa$$ 'w0rd")";
    // The process group of the worker whose install waits in the postinst.
    const auto worker_in_opkg = [&] {
        const fs::path pgid_file = gw.path("/tmp/worker.pgid");
        EXPECT_TRUE(testsupport::poll_until(60s, [&] { return !gwtest::read_text(pgid_file).empty(); }));
        const std::string pgid = gwtest::read_text(pgid_file);
        fs::remove(pgid_file);
        return pgid.substr(0, pgid.find('\n'));
    };
    const auto consistent = [&](std::string_view id, bool installed) {
        return bus.has_object(kPackages + "." + std::string(id)) == installed &&
               fs::exists(gw.path("/usr/local/package/pkg/" + std::string(id))) == installed &&
               fs::exists(gw.path("/usr/lib/opkg/info/app.control")) == installed &&
               fs::is_empty(gw.path("/usr/local/package/journal"));
    };
    std::ofstream(gw.path("/tmp/hold"));
    ASSERT_EQ(operate("Install", 1, install), 0);
    ASSERT_TRUE(gw.sh("kill -9 -" + worker_in_opkg()).ok());
    EXPECT_EQ(bus.story(5, 60s), (V{"20", "6", "21", "result 9002", "9"}));
    EXPECT_TRUE(testsupport::poll_until(60s, [&] { return consistent("1", false); }));

    // The daemon dies, its worker lives on: the next daemon ends the worker before recovering.
    ASSERT_EQ(operate("Install", 2, install), 0);  // package 1 again
    ASSERT_EQ(operate("Install", 3, install), 0);  // package 2, waits
    worker_in_opkg();
    ASSERT_TRUE(gw.signal_pkgd(SIGKILL));
    ASSERT_TRUE(gw.wait_pkgd_exit());
    ASSERT_TRUE(gw.start_pkgd());
    EXPECT_EQ(bus.story(10, 60s), (V{"20", "6", "21", "result 9002", "9", "20", "6", "21", "result 9002", "9"}));
    fs::remove(gw.path("/tmp/hold"));
    EXPECT_EQ(bus.story(15, 60s), (V{"20", "6", "21", "result 9002", "9", "20", "6", "21", "result 9002", "9",
                                     "20", "6", "21", "result 0", "8"}));
    EXPECT_TRUE(testsupport::poll_until(60s, [&] { return consistent("2", true); }))
        << gwtest::read_text(gw.path("/var/log/messages"));
    EXPECT_FALSE(bus.has_object(kPackages + ".1"));
}

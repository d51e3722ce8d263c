// pkgd's start-up in a sandbox gateway: what it leaves behind when it cannot serve, the order in
// which clients see its objects, the root option, and how it ends.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <filesystem>
#include <iterator>

#include "bus_probe.hpp"
#include "refusing_broker.hpp"

namespace pkgd::testing {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kPackages = "Services.Management.LCM.ExecutionEnvironments.System.Packages";
constexpr std::string_view kOperations = "SoftwareModules.Package.System";
constexpr std::string_view kEnvironment = "Services.Management.LCM.ExecutionEnvironments.System";

std::vector<std::string> added(const std::vector<std::string>& before,
                               const std::vector<std::string>& after) {
    std::vector<std::string> diff;
    std::set_difference(after.begin(), after.end(), before.begin(), before.end(), std::back_inserter(diff));
    return diff;
}

TEST(Startup, WithoutABrokerItExits255HavingCreatedOnlyItsThreeDirectories) {
    // The working directories are made whether or not the bus is there; their parents are not.
    auto options = pkgd_gateway();
    options.broker = false;
    options.pkgd_at_start = false;
    sandbox::Gateway plain(options);
    // With the variable set the catalog cannot be asked either, so the identifier is "1".
    options.pkgd_env = {"EXECENV_INDEX=lxc-a"};
    sandbox::Gateway named(options);
    ASSERT_TRUE(plain.up()) << plain.error();
    ASSERT_TRUE(named.up()) << named.error();
    for (const sandbox::Gateway* gw : {&plain, &named}) {
        ASSERT_TRUE(fs::remove(gw->path("/usr/local/package/pkg")));
        ASSERT_TRUE(fs::remove(gw->path("/usr/local/package/ee")));
    }

    const auto plain_before = root_tree(plain);
    const auto named_before = root_tree(named);
    ASSERT_TRUE(plain.start_pkgd());
    ASSERT_TRUE(named.start_pkgd());
    const auto plain_status = plain.wait_pkgd_exit();
    const auto named_status = named.wait_pkgd_exit();
    ASSERT_TRUE(plain_status && named_status);
    EXPECT_TRUE(plain_status->exited_with(255)) << sandbox::format_pkgd_status(*plain_status);
    EXPECT_TRUE(named_status->exited_with(255)) << sandbox::format_pkgd_status(*named_status);

    EXPECT_EQ(added(plain_before, root_tree(plain)),
              (std::vector<std::string>{"tmp/opkg-System", "usr/local/package/ee", "usr/local/package/pkg"}));
    EXPECT_EQ(added(named_before, root_tree(named)),
              (std::vector<std::string>{"tmp/opkg-1", "usr/local/package/ee", "usr/local/package/pkg"}));
}

TEST(Startup, ARefusedRegistrationOfAnObjectItNeedsEndsItWith255) {
    for (std::string_view taken : {kPackages, kOperations}) {
        SCOPED_TRACE(taken);
        auto options = pkgd_gateway();
        options.pkgd_at_start = false;
        sandbox::Gateway gw(options);
        ASSERT_TRUE(gw.up()) << gw.error();
        BusProbe squatter(gw);
        ASSERT_TRUE(squatter.hold(taken));

        ASSERT_TRUE(gw.start_pkgd());
        const auto status = gw.wait_pkgd_exit();
        ASSERT_TRUE(status);
        EXPECT_TRUE(status->exited_with(255)) << sandbox::format_pkgd_status(*status);
        // What it had registered went with its connection.
        EXPECT_FALSE(squatter.has_object(kEnvironment));
        if (taken == kOperations) {
            EXPECT_FALSE(squatter.has_object(kPackages));
        }
    }
}

TEST(Startup, ARefusedEventRegistrationEndsItWith255) {
    auto options = pkgd_gateway();
    options.broker = false;
    options.pkgd_at_start = false;
    sandbox::Gateway gw(options);
    ASSERT_TRUE(gw.up()) << gw.error();
    RefusingBroker broker(gw.socket_path());
    ASSERT_TRUE(broker.listening());

    ASSERT_TRUE(gw.start_pkgd());
    const auto status = gw.wait_pkgd_exit();
    ASSERT_TRUE(status);
    EXPECT_TRUE(broker.refused_a_registration());
    EXPECT_TRUE(status->exited_with(255)) << sandbox::format_pkgd_status(*status);
}

TEST(Startup, WithoutItsEnvironmentObjectItServesOnAndEndsCleanly) {
    auto options = pkgd_gateway();
    options.pkgd_at_start = false;
    sandbox::Gateway gw(options);
    ASSERT_TRUE(gw.up()) << gw.error();
    BusProbe probe(gw);
    ASSERT_TRUE(probe.hold(kEnvironment));

    ASSERT_TRUE(gw.start_pkgd());
    ASSERT_TRUE(probe.wait_for_object(kOperations));
    // pkgd's own handler answers, so pkgd is serving.
    EXPECT_EQ(probe.call(kPackages, "Install").status, ubus::kNotSupported);
    const auto running = gw.pkgd_status();
    ASSERT_TRUE(running);
    EXPECT_EQ(running->state, sandbox::PkgdStatus::State::kRunning);

    ASSERT_TRUE(gw.signal_pkgd(SIGTERM));
    const auto status = gw.wait_pkgd_exit();
    ASSERT_TRUE(status);
    EXPECT_TRUE(status->exited_with(0)) << sandbox::format_pkgd_status(*status);
}

TEST(Startup, ObjectsAppearInTheirFixedOrderWithTheEnvironmentObjectLast) {
    auto options = pkgd_gateway();
    options.pkgd_at_start = false;
    sandbox::Gateway gw(options);
    ASSERT_TRUE(gw.up()) << gw.error();
    BusMonitor monitor(gw);
    ASSERT_TRUE(monitor.active());

    ASSERT_TRUE(gw.start_pkgd());
    ASSERT_TRUE(monitor.wait([](const std::vector<BrokerRequest>& seen) {
        return std::any_of(seen.begin(), seen.end(),
                           [](const BrokerRequest& r) { return r.path == kEnvironment; });
    }));

    // Registrations only: object additions and the event registration (a call on the broker's
    // event object naming the pattern).
    std::vector<std::string> order;
    for (const BrokerRequest& r : monitor.requests()) {
        if (r.type == ubus::MsgType::AddObject)
            order.push_back("add " + (r.path.empty() ? "(listener)" : r.path));
        if (r.type == ubus::MsgType::Invoke && r.target == ubus::kEventObject) {
            const bool lcm = r.data.find(R"("pattern":"Services.Management.LCM")") != std::string::npos;
            order.push_back(r.method + (lcm ? " LCM events" : " " + r.data));
        }
    }
    EXPECT_EQ(order, (std::vector<std::string>{
                         "add " + std::string(kPackages),
                         "add (listener)",
                         "register LCM events",
                         "add " + std::string(kOperations),
                         "add " + std::string(kEnvironment),
                     }));
}

TEST(Startup, AnEmptyRootOptionChangesNoRootEvenAfterAnEarlierOne) {
    // pkgd started inside the gateway (already in its root) with "-r /elsewhere -r ''": had the
    // first option counted, it would look for the bus and make its directories in /elsewhere.
    auto options = pkgd_gateway();
    options.pkgd = false;
    options.tools = {{PKGD_BINARY, "/opt/pkgd/pkgd"}};
    options.prepare = [](const fs::path& root) {
        for (const char* dir : {"elsewhere/tmp", "elsewhere/usr/local/package", "elsewhere/var/run/ubus"})
            fs::create_directories(root / dir);
    };
    sandbox::Gateway gw(options);
    ASSERT_TRUE(gw.up()) << gw.error();
    BusProbe probe(gw);

    sandbox::InsideProcess pkgd = gw.spawn({"/opt/pkgd/pkgd", "-r", "/elsewhere", "-r", "", "-f"});
    ASSERT_TRUE(pkgd.started()) << pkgd.error();
    EXPECT_TRUE(probe.wait_for_object(kEnvironment));
    EXPECT_TRUE(fs::is_directory(gw.path("/tmp/opkg-System")));
    EXPECT_FALSE(fs::exists(gw.path("/elsewhere/tmp/opkg-System")));
    EXPECT_EQ(pkgd.stop(), 0);
}

TEST(Startup, SigtermAndSigintEndItWithStatus0) {
    auto options = pkgd_gateway();
    sandbox::Gateway gw(options);
    ASSERT_TRUE(gw.up()) << gw.error();
    BusProbe probe(gw);

    for (int sig : {SIGTERM, SIGINT}) {
        SCOPED_TRACE(sig);
        // Serving: the environment object is the last thing start-up does before the loop runs.
        ASSERT_TRUE(probe.wait_for_object(kEnvironment));
        ASSERT_TRUE(gw.signal_pkgd(sig));
        const auto status = gw.wait_pkgd_exit();
        ASSERT_TRUE(status);
        EXPECT_TRUE(status->exited_with(0)) << sandbox::format_pkgd_status(*status);
        EXPECT_TRUE(probe.wait_until_gone(kEnvironment));
        if (sig == SIGTERM) {
            ASSERT_TRUE(gw.start_pkgd());
        }
    }
}

}  // namespace
}  // namespace pkgd::testing

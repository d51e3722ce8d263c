// pkgd's start-up in a sandbox gateway: what it leaves behind when it cannot serve, the order in
// which clients see its objects, its working directory and root, detaching, how it ends, and how
// it outlives a broker's crash.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <array>
#include <fstream>

#include "gateway_client.hpp"
#include "poll.hpp"
#include "ubus/wire.hpp"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr std::string_view kPackages = "Services.Management.LCM.ExecutionEnvironments.System.Packages";
constexpr std::string_view kOperations = "SoftwareModules.Package.System";
constexpr std::string_view kEnvironment = "Services.Management.LCM.ExecutionEnvironments.System";

sandbox::GatewayOptions pkgd_later() {
    auto options = gwtest::named_gateway();
    options.pkgd = true;
    options.pkgd_at_start = false;
    return options;
}

// Starts pkgd and returns how its run ended ("exit:N", "signal:N").
std::string run_pkgd(const sandbox::Gateway& gw) {
    if (!gw.start_pkgd()) return "not started";
    const auto status = gw.wait_pkgd_exit();
    return status && status->last_wait_status ? sandbox::format_wait_status(*status->last_wait_status)
                                              : "running";
}

TEST(Startup, WithoutABrokerItExits255HavingCreatedItsWorkingDirectories) {
    auto options = pkgd_later();
    options.broker = false;
    sandbox::Gateway gw(options);
    ASSERT_TRUE(gw.up()) << gw.error();
    ASSERT_TRUE(fs::remove(gw.path("/usr/local/package/pkg")) && fs::remove(gw.path("/usr/local/package/ee")));
    EXPECT_EQ(run_pkgd(gw), "exit:255");
    for (const char* dir : {"/usr/local/package/pkg", "/usr/local/package/ee", "/tmp/opkg-System"})
        EXPECT_TRUE(fs::is_directory(gw.path(dir))) << dir;
}

TEST(Startup, ARefusedRegistrationOfAnObjectItCannotDoWithoutEndsItWith255) {
    for (std::string_view taken : {kPackages, kOperations}) {
        SCOPED_TRACE(taken);
        sandbox::Gateway gw(pkgd_later());
        ASSERT_TRUE(gw.up()) << gw.error();
        gwtest::Client squatter(gw);
        ASSERT_TRUE(squatter.hold(taken));
        EXPECT_EQ(run_pkgd(gw), "exit:255");
        // What it had registered went with its connection.
        EXPECT_FALSE(squatter.has_object(kEnvironment));
        EXPECT_FALSE(taken == kOperations && squatter.has_object(kPackages));
    }
}

TEST(Startup, WithoutItsEnvironmentObjectItServesOnAndSignalsEndItWith0) {
    sandbox::Gateway gw(pkgd_later());
    ASSERT_TRUE(gw.up()) << gw.error();
    gwtest::Client probe(gw);
    ASSERT_TRUE(probe.hold(kEnvironment));
    for (int sig : {SIGTERM, SIGINT}) {
        SCOPED_TRACE(sig);
        ASSERT_TRUE(gw.start_pkgd());
        // Serving: its own handler answers.
        ASSERT_TRUE(probe.wait_for_object(kOperations));
        EXPECT_EQ(probe.call(kPackages, "List").status, ubus::kOk);
        ASSERT_TRUE(gw.signal_pkgd(sig));
        const auto status = gw.wait_pkgd_exit();
        ASSERT_TRUE(status);
        EXPECT_TRUE(status->exited_with(0)) << sandbox::format_pkgd_status(*status);
        EXPECT_TRUE(probe.wait_until_gone(kOperations));
    }
}

TEST(Startup, ObjectsAppearInTheirFixedOrderRestoredPackagesBeforeTheEnvironmentObject) {
    auto options = pkgd_later();
    options.prepare = [](const fs::path& root) {
        std::ofstream(root / "usr/local/package/pkg/1") << R"({"DU":1})";
        std::ofstream(root / "usr/local/package/du/1") << R"({"name":"app-1"})";
    };
    sandbox::Gateway gw(options);
    ASSERT_TRUE(gw.up()) << gw.error();
    // A monitor's copies of what clients send to the broker: object additions and calls on the
    // broker's event object, until the environment object is added.
    ubus::Connection monitor;
    ASSERT_EQ(monitor.connect(gw.socket_path().string()), ubus::kOk);
    std::vector<std::string> order;
    monitor.on_monitor([&order, self = monitor.client_id()](ubus::Bytes attributes) {
        // Monitor bodies number their own attributes: 0 client, 2 sent by the broker, 4 type, 5 body.
        std::array<ubus::Attr, 6> at{};
        for (ubus::Attr a : ubus::AttrList(attributes))
            if (a.id() < at.size()) at[a.id()] = a;
        if (at[0].u32() == self || at[2].u8() != 0) return;
        const ubus::MsgAttrs msg(at[5].payload());
        const auto type = static_cast<ubus::MsgType>(at[4].u32());
        if (type == ubus::MsgType::AddObject) {
            const std::string_view path = msg.str(ubus::kAttrObjPath);
            order.push_back("add " + std::string(path.empty() ? "(listener)" : path));
        } else if (type == ubus::MsgType::Invoke && msg.u32(ubus::kAttrObjId) == ubus::kEventObject) {
            static constexpr ubus::Policy kPattern[] = {{"pattern", ubus::Type::String}};
            order.push_back(std::string(msg.str(ubus::kAttrMethod)) + " " +
                            std::string(ubus::parse(kPattern, msg.data())[0].as_string()));
        }
    });
    ASSERT_EQ(monitor.invoke(ubus::kMonitorObject, "add", {}, nullptr, 10000), ubus::kOk);
    ASSERT_TRUE(gw.start_pkgd());
    testsupport::poll_until(10s, [&] {
        monitor.dispatch(100);
        return !order.empty() && order.back() == "add " + std::string(kEnvironment);
    });
    EXPECT_EQ(order,
              (std::vector<std::string>{"add " + std::string(kPackages), "add (listener)",
                                        "register Services.Management.LCM", "add " + std::string(kOperations),
                                        "add " + std::string(kPackages) + ".1", "add " + std::string(kEnvironment)}));
    // The environment's figures are the machine's own.
    std::ifstream meminfo("/proc/meminfo");
    std::string key, total;
    meminfo >> key >> total;
    EXPECT_NE(gwtest::Client(gw).call(kEnvironment, "Get").first().find(R"("Memory":{"Total":)" + total + ","),
              std::string::npos);
}

TEST(Startup, AfterChangingItsRootItWorksFromTheNewRoot) {
    auto options = gwtest::named_gateway();
    options.pkgd = true;
    sandbox::Gateway gw(options);
    ASSERT_TRUE(gw.up()) << gw.error();
    ASSERT_TRUE(gwtest::Client(gw).wait_for_object(kEnvironment));
    // Its working directory is the root it was given, not left outside it.
    std::string proc;  // pkgd's process as the host sees it
    for (pid_t pid : sandbox::processes_in_namespace("pid", gw.pid_namespace())) {
        std::error_code ec;
        if (fs::read_symlink("/proc/" + std::to_string(pid) + "/exe", ec).filename() == "pkgd")
            proc = "/proc/" + std::to_string(pid);
    }
    struct stat cwd {}, root {};
    ASSERT_EQ(::stat((proc + "/cwd").c_str(), &cwd), 0) << "no pkgd process";
    ASSERT_EQ(::stat(gw.root().c_str(), &root), 0);
    EXPECT_EQ(std::pair(cwd.st_dev, cwd.st_ino), std::pair(root.st_dev, root.st_ino));
}

// The broker crashes while an install waits in its download (on a feed server that takes the
// connection and never answers): pkgd, still the same run, comes back with every object, the new
// package's included, and logs the loss and the recovery once each.
TEST(Startup, ItOutlivesABrokerCrashDuringAnInstallAndComesBackWithEveryObject) {
    auto options = gwtest::named_gateway();
    options.pkgd = options.simulator = true;
    sandbox::Gateway gw(options);
    ASSERT_TRUE(gw.up()) << gw.error();
    const ubus::UniqueFd feed(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in addr{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t size = sizeof addr;
    auto* address = reinterpret_cast<sockaddr*>(&addr);
    ASSERT_TRUE(::bind(feed.get(), address, size) == 0 && ::listen(feed.get(), 4) == 0 &&
                ::getsockname(feed.get(), address, &size) == 0);
    gwtest::Client before(gw);
    ASSERT_TRUE(before.wait_for_object(kEnvironment));
    const std::string url = "http://127.0.0.1:" + std::to_string(ntohs(addr.sin_port)) + "/app.ipk";
    const std::string install = R"({"RequestID":1,"OperateID":1,"OperateMID":1,"URL":")" + url + "\"}";
    ASSERT_EQ(before.call(kOperations, "Install", install).status, ubus::kOk);
    pollfd download{feed.get(), POLLIN, 0};
    ASSERT_EQ(::poll(&download, 1, 10000), 1) << "the install did not reach the feed";

    ASSERT_TRUE(gw.restart_broker());
    gwtest::Client after(gw);
    const std::string package = std::string(kPackages) + ".1";
    for (std::string_view name : {kPackages, kOperations, std::string_view(package), kEnvironment})
        EXPECT_TRUE(after.wait_for_object(name, 2s)) << name;
    EXPECT_NE(after.call(package, "Get").first().find(R"("Status":"Downloading")"), std::string::npos);
    const auto status = gw.pkgd_status();
    EXPECT_TRUE(status && status->state == sandbox::PkgdStatus::State::kRunning && status->runs == 1u);
    ASSERT_TRUE(gw.wait_syslog("back on the bus"));
    const auto lines = gw.syslog_lines();
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(), [](auto& l) { return l.find("lost the bus") != l.npos; }), 1);
}

// pkgd run as a program inside the gateway, with the command line a test gives it.
sandbox::GatewayOptions pkgd_inside() {
    auto options = gwtest::named_gateway();
    options.tools = {{PKGD_BINARY, "/usr/bin/pkgd"}};
    return options;
}

TEST(Startup, WithoutDashFItDetachesAndServesFromTheBackground) {
    sandbox::Gateway gw(pkgd_inside());
    ASSERT_TRUE(gw.up()) << gw.error();
    sandbox::InsideProcess started = gw.spawn({"/usr/bin/pkgd"});
    ASSERT_TRUE(started.started()) << started.error();
    EXPECT_EQ(started.wait(10s), 0);
    EXPECT_TRUE(gwtest::Client(gw).wait_for_object(kEnvironment));
}

TEST(Startup, AFailedChangeOfRootServesTheTreeAsItIs) {
    sandbox::Gateway gw(pkgd_inside());
    ASSERT_TRUE(gw.up()) << gw.error();
    sandbox::InsideProcess pkgd = gw.spawn({"/usr/bin/pkgd", "-f", "-r", "/no/such/root"});
    ASSERT_TRUE(pkgd.started()) << pkgd.error();
    EXPECT_TRUE(gwtest::Client(gw).wait_for_object(kEnvironment));
    EXPECT_EQ(pkgd.stop(), 0);
}

}  // namespace

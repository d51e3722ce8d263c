// pkgd's start-up in a sandbox gateway: what it leaves behind when it cannot serve, the order in
// which clients see its objects, and how it ends.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>

#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <iterator>
#include <thread>

#include "child_process.hpp"
#include "gateway_client.hpp"
#include "poll.hpp"
#include "ubus/wire.hpp"
#include "unix_socket.hpp"

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

// Paths below the root of everything but what the sandbox itself keeps (its logs and run files).
std::vector<std::string> root_tree(const sandbox::Gateway& gw) {
    std::vector<std::string> paths;
    for (auto it = fs::recursive_directory_iterator(gw.root()); it != fs::recursive_directory_iterator();
         ++it) {
        paths.push_back(it->path().lexically_relative(gw.root()).string());
        if (paths.back() == "var/run/sandbox" || paths.back() == "var/log" || paths.back() == "var/run/ubus")
            it.disable_recursion_pending();
    }
    std::sort(paths.begin(), paths.end());
    return paths;
}

// A broker for one client that accepts object registrations and refuses every event
// registration: our own broker has no reason ever to refuse one.
class RefusingBroker {
public:
    explicit RefusingBroker(const fs::path& socket) {
        std::string error;
        listener_ = sandbox::listen_unix(socket, SOCK_STREAM, 0666, error);
        thread_ = std::thread([this] { serve(); });
    }
    ~RefusingBroker() {
        stop_ = true;
        thread_.join();
    }
    std::atomic<bool> refused{false};

private:
    void send(ubus::MsgType type, const ubus::Frame& f, std::uint32_t attr, std::uint32_t value) {
        out_.start(type, f.hdr.seq, f.hdr.peer);
        out_.put_u32(attr, value);
        ubus::send_frame_blocking(client_.get(), out_.frame());
    }
    void serve() {
        ubus::FrameReader reader;
        while (!stop_) {
            pollfd p{client_ ? client_.get() : listener_.get(), POLLIN, 0};
            if (::poll(&p, 1, 50) <= 0) continue;
            if (!client_) {
                client_.reset(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
                out_.start(ubus::MsgType::Hello, 0, 0x1000);
                ubus::send_frame_blocking(client_.get(), out_.frame());
            } else if (reader.read_from(client_.get()) != ubus::FrameReader::Result::NeedMore) {
                return;
            }
            for (ubus::Frame f; client_ && reader.next(f) == ubus::FrameReader::Result::Frame;) {
                const ubus::MsgAttrs attrs = f.attrs();
                const bool refuse = f.hdr.type == ubus::MsgType::Invoke &&
                                    attrs.u32(ubus::kAttrObjId) == ubus::kEventObject &&
                                    attrs.str(ubus::kAttrMethod) == "register";
                refused = refused || refuse;
                if (f.hdr.type == ubus::MsgType::AddObject)
                    send(ubus::MsgType::Data, f, ubus::kAttrObjId, ++next_id_);
                send(ubus::MsgType::Status, f, ubus::kAttrStatus,
                     refuse ? ubus::kPermissionDenied : ubus::kOk);
            }
        }
    }
    ubus::UniqueFd listener_, client_;
    ubus::MsgBuf out_;
    std::uint32_t next_id_ = 0x2000;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

TEST(Startup, WithoutABrokerItExits255HavingCreatedOnlyItsThreeDirectories) {
    // The working directories are made whether or not the bus is there; their parents are not.
    auto options = pkgd_later();
    options.broker = false;
    // With the variable set the catalog cannot be asked either, so the identifier is "1".
    for (const char* env : {"", "EXECENV_INDEX=lxc-a"}) {
        SCOPED_TRACE(env);
        options.pkgd_env = *env ? std::vector<std::string>{env} : std::vector<std::string>{};
        sandbox::Gateway gw(options);
        ASSERT_TRUE(gw.up()) << gw.error();
        ASSERT_TRUE(fs::remove(gw.path("/usr/local/package/pkg")) &&
                    fs::remove(gw.path("/usr/local/package/ee")));
        const auto before = root_tree(gw);
        EXPECT_EQ(run_pkgd(gw), "exit:255");
        const auto after = root_tree(gw);
        std::vector<std::string> added;
        std::set_difference(after.begin(), after.end(), before.begin(), before.end(),
                            std::back_inserter(added));
        EXPECT_EQ(added, (std::vector<std::string>{*env ? "tmp/opkg-1" : "tmp/opkg-System",
                                                   "usr/local/package/ee", "usr/local/package/pkg"}));
    }
}

TEST(Startup, ARefusedRegistrationOfAnObjectOrOfItsEventListenerEndsItWith255) {
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
    auto options = pkgd_later();
    options.broker = false;
    sandbox::Gateway gw(options);
    ASSERT_TRUE(gw.up()) << gw.error();
    RefusingBroker broker(gw.socket_path());
    EXPECT_EQ(run_pkgd(gw), "exit:255");
    EXPECT_TRUE(broker.refused);
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

TEST(Startup, ObjectsAppearInTheirFixedOrderWithTheEnvironmentObjectLast) {
    sandbox::Gateway gw(pkgd_later());
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
                                        "add " + std::string(kEnvironment)}));
    // The environment's figures are the machine's own.
    std::ifstream meminfo("/proc/meminfo");
    std::string key, total;
    meminfo >> key >> total;
    EXPECT_NE(gwtest::Client(gw).call(kEnvironment, "Get").first().find(R"("Memory":{"Total":)" + total + ","),
              std::string::npos);
}

// pkgd's process as the host sees it.
std::optional<pid_t> pkgd_host_pid(const sandbox::Gateway& gw) {
    for (pid_t pid : sandbox::processes_in_namespace("pid", gw.pid_namespace())) {
        std::error_code ec;
        if (fs::read_symlink("/proc/" + std::to_string(pid) + "/exe", ec).filename() == "pkgd") return pid;
    }
    return std::nullopt;
}

TEST(Startup, AfterChangingItsRootItWorksFromTheNewRootAndEndsWith0WhenTheBrokerGoes) {
    auto options = pkgd_later();
    options.broker = false;
    sandbox::Gateway gw(options);
    ASSERT_TRUE(gw.up()) << gw.error();
    bus_test::Child broker(UBUSD_PATH, {"ubusd", "-s", gw.socket_path().string()});
    ASSERT_TRUE(testsupport::poll_until(10s, [&] { return fs::exists(gw.socket_path()); }));
    ASSERT_TRUE(gw.start_pkgd());
    ASSERT_TRUE(gwtest::Client(gw).wait_for_object(kEnvironment));
    // Its working directory is the root it was given, not left outside it.
    const auto pid = pkgd_host_pid(gw);
    ASSERT_TRUE(pid);
    struct stat cwd {}, root {};
    ASSERT_EQ(::stat(("/proc/" + std::to_string(*pid) + "/cwd").c_str(), &cwd), 0);
    ASSERT_EQ(::stat(gw.root().c_str(), &root), 0);
    EXPECT_EQ(std::pair(cwd.st_dev, cwd.st_ino), std::pair(root.st_dev, root.st_ino));

    broker.stop(SIGTERM);
    const auto status = gw.wait_pkgd_exit();
    ASSERT_TRUE(status);
    EXPECT_TRUE(status->exited_with(0)) << sandbox::format_pkgd_status(*status);
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

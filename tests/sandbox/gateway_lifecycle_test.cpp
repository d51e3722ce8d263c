// Bringing a gateway up and down: layout, PID namespace, what survives a killed launcher, start-up
// failures, and the unprivileged (user namespace) path.
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <charconv>
#include <cstdio>
#include <thread>

#include "fakes.hpp"

namespace sandbox::testing {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

// Polls until no host process is left in the namespace; the survivors otherwise.
std::vector<pid_t> survivors(const char* kind, const std::string& id) {
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    auto left = processes_in_namespace(kind, id);
    while (!left.empty() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(20ms);
        left = processes_in_namespace(kind, id);
    }
    return left;
}

mode_t mode_of(const fs::path& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 0;
}

TEST(Lifecycle, RootHasTheGatewayLayoutAndAWorkingUserland) {
    Gateway gw(fake_gateway());
    ASSERT_TRUE(gw.up()) << gw.error();

    EXPECT_EQ(mode_of(gw.path("/tmp")), 01777u);
    EXPECT_EQ(fs::read_symlink(gw.path("/bin/sh")), "busybox");
    CommandResult layout = gw.sh(
        "for d in /usr/local/package/pkg /usr/local/package/du /usr/local/package/eu /usr/local/package/ee "
        "/usr/lib/opkg/info /usr/lib/opkg/lists /etc/opkg /etc/init.d /var/run/ubus /var/log /tmp; do "
        "  test -d $d || echo missing $d; done; "
        "for n in null zero random urandom; do test -c /dev/$n || echo no device $n; done; "
        "echo discarded > /dev/null || echo /dev/null not writable; "
        "for t in sh tar rm ls cat mkdir sleep ps kill echo test; do "
        "  command -v $t > /dev/null || echo no $t; done");
    EXPECT_TRUE(layout.ok()) << layout.err;
    EXPECT_EQ(layout.out, "");

    // A dynamically linked program of the build runs after the chroot: the host's libraries are seen.
    CommandResult tool = gw.run({"/opt/pkgd/bin/ubusd", "--check"});
    EXPECT_TRUE(tool.ok()) << tool.err;
    EXPECT_EQ(tool.out, "fake broker runs\n");
}

TEST(Lifecycle, PreparedContentSurvivesAndInitScriptsRun) {
    GatewayOptions options = fake_gateway();
    options.prepare = [](const fs::path& root) {
        std::ofstream(root / "etc/passwd") << "root:x:0:0:root:/root:/bin/sh\nsvc:x:100:100::/:/bin/false\n";
        std::ofstream(root / "etc/init.d/demo") << "#!/bin/sh\necho \"demo $1 as $(id -un)\"\n";
        fs::permissions(root / "etc/init.d/demo", fs::perms::owner_all);
    };
    Gateway gw(options);  // the launcher completes the root again: what is there must stay
    ASSERT_TRUE(gw.up()) << gw.error();
    CommandResult script = gw.run({"/etc/init.d/demo", "start"});
    EXPECT_TRUE(script.ok()) << script.err;
    EXPECT_EQ(script.out, "demo start as root\n");
    EXPECT_NE(read_file(gw.path("/etc/passwd")).find("svc:x:100"), std::string::npos);
}

TEST(Lifecycle, ProcessesInsideLiveInTheGatewaysOwnPidNamespace) {
    Gateway gw(fake_gateway());
    ASSERT_TRUE(gw.up()) << gw.error();

    InsideProcess sleeper = gw.spawn({"sleep", "300"});
    ASSERT_TRUE(sleeper.started()) << sleeper.error();
    EXPECT_GT(sleeper.pid(), 1);
    EXPECT_LT(sleeper.pid(), 100);

    // Seen from a chrooted shell through the root's own /proc: its own pid and the sleeper's.
    CommandResult seen = gw.sh("test -d /proc/$$ && echo $$; cat /proc/" + std::to_string(sleeper.pid()) +
                               "/cmdline | tr '\\0' ' '; echo; cat /proc/1/cmdline | tr '\\0' ' '");
    ASSERT_TRUE(seen.ok()) << seen.err;
    std::istringstream lines(seen.out);
    std::string self, sleeper_cmdline, init_cmdline;
    std::getline(lines, self);
    std::getline(lines, sleeper_cmdline);
    std::getline(lines, init_cmdline);
    int self_pid = 0;
    std::from_chars(self.data(), self.data() + self.size(), self_pid);
    EXPECT_GT(self_pid, 1);
    EXPECT_LT(self_pid, 100);
    EXPECT_EQ(sleeper_cmdline, "sleep 300 ");
    EXPECT_NE(init_cmdline.find("pkgd-sandbox run"), std::string::npos) << init_cmdline;

    // The root's /proc is a mount of the gateway's namespace only: empty as seen from the host.
    EXPECT_TRUE(fs::is_empty(gw.path("/proc")));
    EXPECT_FALSE(host_has_mounts_below(gw.root()));

    EXPECT_EQ(sleeper.stop(), 128 + SIGTERM);
}

TEST(Lifecycle, KillingTheLauncherLeavesNoProcessAndNoMountBehind) {
    Gateway gw(fake_gateway_with_pkgd());
    ASSERT_TRUE(gw.up()) << gw.error();
    // A daemon of its own session that shrugs off the usual stop signals and whose parent is gone.
    CommandResult detached = gw.sh(
        "setsid sh -c 'trap \"\" TERM HUP INT; while :; do sleep 1; done' </dev/null >/dev/null 2>&1 &");
    ASSERT_TRUE(detached.ok()) << detached.err;
    InsideProcess sleeper = gw.spawn({"sleep", "300"});
    ASSERT_TRUE(sleeper.started()) << sleeper.error();
    // PID 1, the broker, pkgd, the daemon's shell and its sleep, the sleeper.
    ASSERT_GE(processes_in_namespace("pid", gw.pid_namespace()).size(), 5u);

    gw.signal_launcher(SIGKILL);
    EXPECT_EQ(gw.wait_launcher_exit(10s), 128 + SIGKILL);
    EXPECT_EQ(survivors("pid", gw.pid_namespace()), std::vector<pid_t>{});
    // No process keeps the mount namespace, so every mount made in it is gone.
    EXPECT_EQ(survivors("mnt", gw.mount_namespace()), std::vector<pid_t>{});
    EXPECT_FALSE(host_has_mounts_below(gw.root()));
    // The helper that started the sleeper on the host notices that its program died.
    EXPECT_EQ(sleeper.wait(10s), 128 + SIGKILL);
}

TEST(Lifecycle, OrderlyStopEndsPkgdAndEverythingElse) {
    Gateway gw(fake_gateway_with_pkgd());
    ASSERT_TRUE(gw.up()) << gw.error();
    ASSERT_TRUE(gw.wait_syslog("fake-pkgd["));  // set up, SIGTERM handled
    const std::string pid_ns = gw.pid_namespace();

    EXPECT_EQ(gw.shut_down(), 0);
    // pkgd got SIGTERM and ended by itself (the stand-in exits 0 on SIGTERM, not by the signal).
    EXPECT_EQ(read_file(gw.path("/var/run/sandbox/pkgd.status")), "exit:0\n");
    EXPECT_EQ(survivors("pid", pid_ns), std::vector<pid_t>{});
    EXPECT_FALSE(fs::exists(gw.path("/var/run/sandbox/ready")));
    EXPECT_EQ(gw.run({"true"}).exit_code, 125);  // nothing left to run it in
}

TEST(Lifecycle, TheProjectsBrokerGreetsClientsOnTheRootsSocket) {
    GatewayOptions options = fake_gateway();
    options.broker_path.clear();  // the project's own
    Gateway gw(options);
    if (!gw.up() && gw.error().find("is not built") != std::string::npos) GTEST_SKIP() << gw.error();
    ASSERT_TRUE(gw.up()) << gw.error();

    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", gw.socket_path().c_str());
    ASSERT_EQ(::connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr), 0);
    // HELLO: version 0, type 0, seq 0, the new client's id, an empty body.
    unsigned char hello[12] = {};
    timeval limit{10, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    ASSERT_EQ(::recv(fd, hello, sizeof hello, MSG_WAITALL), 12);
    ::close(fd);
    EXPECT_EQ(hello[0], 0);
    EXPECT_EQ(hello[1], 0);
    EXPECT_EQ(hello[11], 4);
}

TEST(Lifecycle, StartUpFailuresAreReportedNotWaitedOut) {
    GatewayOptions missing = fake_gateway();
    missing.broker_path = "/nonexistent/ubusd";
    Gateway no_binary(missing);
    EXPECT_FALSE(no_binary.up());
    EXPECT_NE(no_binary.error().find("/nonexistent/ubusd"), std::string::npos) << no_binary.error();

    // A "broker" that exits at once (the pkgd stand-in refuses the broker's command line).
    GatewayOptions dying = fake_gateway();
    dying.broker_path = FAKE_PKGD;
    Gateway early_exit(dying);
    EXPECT_FALSE(early_exit.up());
    EXPECT_NE(early_exit.error().find("the broker exited during start-up"), std::string::npos)
        << early_exit.error();
}

TEST(Lifecycle, UnprivilegedCallerRunsTheGatewayInAUserNamespace) {
    const Credentials nobody{65534, 65534};
    // The build tree must be reachable for that user, and the host must allow user namespaces.
    SpawnSpec probe;
    probe.argv = {"/bin/sh", "-c", std::string("test -x ") + FAKE_BROKER + " && unshare -U -r true"};
    probe.env = environment_with({});
    probe.user = nobody;
    if (!run_command(probe, 10s).ok()) GTEST_SKIP() << "no user namespaces for an unprivileged user here";

    GatewayOptions options = fake_gateway_with_pkgd();
    options.user = nobody;
    Gateway gw(options);
    ASSERT_TRUE(gw.up()) << gw.error();
    CommandResult inside =
        gw.sh("id -u; touch /usr/lib/opkg/info/made-inside; touch /usr/lib64/x 2>/dev/null || echo ro");
    ASSERT_TRUE(inside.ok()) << inside.err;
    EXPECT_EQ(inside.out, "0\nro\n");
    struct stat st {};
    ASSERT_EQ(::stat(gw.path("/usr/lib/opkg/info/made-inside").c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, nobody.uid);  // root inside is the caller outside
    EXPECT_TRUE(gw.wait_pkgd([](const PkgdStatus& s) { return s.state == PkgdStatus::State::kRunning; }));
    EXPECT_TRUE(gw.wait_syslog("fake-pkgd"));
}

}  // namespace
}  // namespace sandbox::testing

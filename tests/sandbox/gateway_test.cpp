// Bringing a gateway up and down: what a process inside may touch, its PID namespace and syslog,
// and what a killed launcher leaves behind.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include "gateway_client.hpp"
#include "poll.hpp"

namespace sandbox {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using gwtest::read_text;

// Polls until no host process is left in the namespace; the survivors otherwise.
std::vector<pid_t> survivors(const char* kind, const std::string& id) {
    std::vector<pid_t> left;
    testsupport::poll_until(10s, [&] { return (left = processes_in_namespace(kind, id)).empty(); }, 20ms);
    return left;
}

GatewayOptions with_pkgd() {
    GatewayOptions options = gwtest::named_gateway();
    options.pkgd = true;
    return options;
}

TEST(Gateway, HostFilesAreSeenReadOnlyAndWritesLandInTheRootAndItsSyslog) {
    Gateway gw(gwtest::named_gateway());
    ASSERT_TRUE(gw.up()) << gw.error();
    const std::string name = "sandbox-probe-" + std::to_string(::getpid());
    for (const std::string dir :
         {"/usr/lib/x86_64-linux-gnu", "/usr/lib", "/usr/lib64", "/usr/share/zoneinfo"}) {
        if (!fs::is_directory(dir)) continue;
        CommandResult touch = gw.run({"touch", dir + "/" + name});
        EXPECT_NE(touch.err.find("Read-only file system"), std::string::npos) << dir << ": " << touch.err;
        EXPECT_FALSE(fs::exists(dir + "/" + name)) << dir;
    }
    EXPECT_NE(gw.sh("echo garbage > /etc/ld.so.cache").exit_code, 0);

    // /usr/lib/opkg stays the root's own, writable, although /usr/lib as a whole shows the host's.
    CommandResult write = gw.sh("echo opkg > /usr/lib/opkg/info/" + name + " && echo tmp > /tmp/" + name +
                                " && logger -t probe -p daemon.warning 'first record'" +
                                " && logger -t probe -p local7.debug 'second record'");
    ASSERT_TRUE(write.ok()) << write.err;
    EXPECT_EQ(read_text(gw.path("/usr/lib/opkg/info/" + name)), "opkg\n");
    EXPECT_EQ(read_text(gw.path("/tmp/" + name)), "tmp\n");
    EXPECT_FALSE(fs::exists("/tmp/" + name));
    EXPECT_FALSE(fs::exists("/usr/lib/opkg/info/" + name));
    // Each record becomes one line (how it reads is the syslog line's unit test).
    ASSERT_TRUE(gw.wait_syslog("second record")) << read_text(gw.path("/var/log/messages"));
    EXPECT_EQ(gw.syslog_lines().size(), 2u);
}

TEST(Gateway, KillingTheLauncherLeavesNoProcessAndNoMountBehind) {
    Gateway gw(with_pkgd());
    ASSERT_TRUE(gw.up()) << gw.error();
    // A daemon of its own session that shrugs off the usual stop signals and whose parent is gone.
    ASSERT_TRUE(gw.sh("setsid sh -c 'trap \"\" TERM HUP INT; while :; do sleep 1; done' "
                      "</dev/null >/dev/null 2>&1 &")
                    .ok());
    InsideProcess sleeper = gw.spawn({"sleep", "300"});
    ASSERT_TRUE(sleeper.started()) << sleeper.error();
    // Seen from a chrooted shell through the root's own /proc, in the gateway's PID namespace.
    const std::string pid = std::to_string(sleeper.pid());
    // Started means forked: the sandbox's helper becomes `sleep` a moment later.
    std::string cmdline;
    EXPECT_TRUE(testsupport::poll_until(10s, [&] {
        return (cmdline = gw.sh("test " + pid + " -lt 100 && cat /proc/" + pid + "/cmdline | tr '\\0' ' '").out) ==
               "sleep 300 ";
    })) << cmdline;
    // PID 1, the broker, pkgd, the daemon's shell and its sleep, the sleeper.
    ASSERT_GE(processes_in_namespace("pid", gw.pid_namespace()).size(), 5u);
    // The root's /proc is a mount of the gateway's namespace only: empty as seen from the host.
    EXPECT_TRUE(fs::is_empty(gw.path("/proc")));
    EXPECT_FALSE(host_has_mounts_below(gw.root()));

    gw.signal_launcher(SIGKILL);
    EXPECT_EQ(gw.wait_launcher_exit(10s), 128 + SIGKILL);
    EXPECT_EQ(survivors("pid", gw.pid_namespace()), std::vector<pid_t>{});
    // No process keeps the mount namespace, so every mount made in it is gone.
    EXPECT_EQ(survivors("mnt", gw.mount_namespace()), std::vector<pid_t>{});
    EXPECT_FALSE(host_has_mounts_below(gw.root()));
    // The helper that started the sleeper on the host notices that its program died.
    EXPECT_EQ(sleeper.wait(10s), 128 + SIGKILL);
}

}  // namespace
}  // namespace sandbox

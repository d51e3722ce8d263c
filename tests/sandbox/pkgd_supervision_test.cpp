// How the gateway runs pkgd: its command line and environment, its exit status, and starting,
// stopping, restarting and signalling it on request.
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <thread>

#include "fakes.hpp"

namespace sandbox::testing {
namespace {

using namespace std::chrono_literals;
using State = PkgdStatus::State;

// The stand-in logs once it is set up (SIGTERM handled); a stop before that would kill it instead.
bool wait_until_started(const Gateway& gw, std::size_t runs) {
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    while (std::chrono::steady_clock::now() < deadline) {
        auto lines = gw.syslog_lines();
        if (std::count_if(lines.begin(), lines.end(), [](const auto& l) {
                return l.find("fake-pkgd[") != l.npos;
            }) >= static_cast<long>(runs)) {
            return true;
        }
        std::this_thread::sleep_for(10ms);
    }
    return false;
}

TEST(Pkgd, WithoutABrokerItsExitStatusIsReported) {
    GatewayOptions options = fake_gateway_with_pkgd();
    options.broker = false;
    Gateway gw(options);
    ASSERT_TRUE(gw.up()) << gw.error();

    auto status = gw.wait_pkgd_exit();
    ASSERT_TRUE(status);
    EXPECT_TRUE(status->exited_with(255)) << format_pkgd_status(*status);
    EXPECT_EQ(status->runs, 1u);
    EXPECT_EQ(read_file(gw.path("/var/run/sandbox/pkgd.status")), "exit:255\n");
}

TEST(Pkgd, RunsChangingRootItselfWithOnlyTheEnvironmentItIsGiven) {
    // Set on the host: must not leak into pkgd, whose environment identity it would change.
    ::setenv("EXECENV_INDEX", "9", 1);
    GatewayOptions plain = fake_gateway_with_pkgd();
    GatewayOptions indexed = fake_gateway_with_pkgd();
    indexed.pkgd_env = {"EXECENV_INDEX=7"};
    Gateway gw_plain(plain);
    Gateway gw_indexed(indexed);
    ::unsetenv("EXECENV_INDEX");
    ASSERT_TRUE(gw_plain.up()) << gw_plain.error();
    ASSERT_TRUE(gw_indexed.up()) << gw_indexed.error();

    // The stand-in logs once it has changed root and written its note.
    ASSERT_TRUE(gw_plain.wait_syslog("started for System"));
    ASSERT_TRUE(gw_indexed.wait_syslog("started for 7"));
    auto note = read_file(gw_indexed.path("/tmp/fake-pkgd.txt"));
    EXPECT_EQ(note.rfind("root=" + gw_indexed.root().string() + " env=7 pid=", 0), 0u) << note;
    auto line = gw_indexed.wait_syslog("fake-pkgd[");
    ASSERT_TRUE(line);
    EXPECT_TRUE(line->starts_with("daemon.info ")) << *line;
    EXPECT_NE(read_file(gw_plain.path("/tmp/fake-pkgd.txt")).find(" env=(unset) "), std::string::npos);
}

TEST(Pkgd, StartedLaterThenSignalledRestartedAndStopped) {
    GatewayOptions options = fake_gateway_with_pkgd();
    options.pkgd_at_start = false;
    Gateway gw(options);
    ASSERT_TRUE(gw.up()) << gw.error();
    auto idle = gw.pkgd_status();
    ASSERT_TRUE(idle);
    EXPECT_EQ(idle->state, State::kIdle);
    EXPECT_FALSE(gw.stop_pkgd());

    ASSERT_TRUE(gw.start_pkgd());
    auto first = gw.wait_pkgd([](const PkgdStatus& s) { return s.state == State::kRunning; });
    ASSERT_TRUE(first);
    EXPECT_EQ(first->runs, 1u);
    EXPECT_FALSE(gw.start_pkgd()) << "a second pkgd must not be started";

    ASSERT_TRUE(wait_until_started(gw, 1));
    ASSERT_TRUE(gw.signal_pkgd(SIGKILL));
    auto killed = gw.wait_pkgd_exit();
    ASSERT_TRUE(killed);
    EXPECT_TRUE(killed->killed_by(SIGKILL)) << format_pkgd_status(*killed);
    EXPECT_EQ(killed->pid, first->pid);

    ASSERT_TRUE(gw.restart_pkgd());
    ASSERT_TRUE(gw.wait_pkgd([](const PkgdStatus& s) { return s.state == State::kRunning && s.runs == 2; }));
    ASSERT_TRUE(wait_until_started(gw, 2));
    ASSERT_TRUE(gw.restart_pkgd());  // while running: stopped, then started again
    auto third = gw.wait_pkgd([](const PkgdStatus& s) { return s.state == State::kRunning && s.runs == 3; });
    ASSERT_TRUE(third);
    EXPECT_TRUE(third->exited_with(0)) << "the restart stopped the previous run with SIGTERM";

    ASSERT_TRUE(wait_until_started(gw, 3));
    ASSERT_TRUE(gw.stop_pkgd());
    auto stopped = gw.wait_pkgd_exit();
    ASSERT_TRUE(stopped);
    EXPECT_TRUE(stopped->exited_with(0)) << format_pkgd_status(*stopped);
}

TEST(Pkgd, RequestsAreRefusedWhenNoPkgdIsConfigured) {
    Gateway gw(fake_gateway());
    ASSERT_TRUE(gw.up()) << gw.error();
    auto status = gw.pkgd_status();
    ASSERT_TRUE(status);
    EXPECT_EQ(status->state, State::kAbsent);
    Status start = gw.start_pkgd();
    EXPECT_FALSE(start);
    EXPECT_EQ(start.error(), "no pkgd is configured");
}

TEST(ControlSocket, SilentAndGarbageClientsDoNotHoldUpOthers) {
    Gateway gw(fake_gateway_with_pkgd());
    ASSERT_TRUE(gw.up()) << gw.error();
    const auto socket = gw.path("/var/run/sandbox/control.sock");
    // Connected, never speaking: the launcher must not wait for it.
    int silent = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", socket.c_str());
    ASSERT_EQ(::connect(silent, reinterpret_cast<const sockaddr*>(&addr), sizeof addr), 0);

    ControlReply unknown = control_request(socket, "reboot", 5s);
    EXPECT_FALSE(unknown.ok);
    EXPECT_EQ(unknown.text, "unknown request: reboot");
    ControlReply huge = control_request(socket, std::string(10000, 'x'), 5s);
    EXPECT_FALSE(huge.ok);
    EXPECT_FALSE(control_request(socket, "signal 9x", 5s).ok);
    EXPECT_FALSE(control_request(socket, "signal 65", 5s).ok);

    auto status = gw.pkgd_status();
    ASSERT_TRUE(status);
    EXPECT_EQ(status->state, State::kRunning);
    ::close(silent);
}

}  // namespace
}  // namespace sandbox::testing

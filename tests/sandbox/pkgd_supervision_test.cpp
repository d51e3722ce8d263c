// How the gateway runs pkgd: in its root with only the environment it is given, and started,
// stopped, restarted and signalled on request.
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>

#include "gateway_client.hpp"
#include "poll.hpp"

namespace sandbox {
namespace {

using namespace std::chrono_literals;
using State = PkgdStatus::State;

constexpr std::string_view kEnvPrefix = "Services.Management.LCM.ExecutionEnvironments.";

GatewayOptions with_pkgd() {
    GatewayOptions options = gwtest::named_gateway();
    options.pkgd = true;
    return options;
}

TEST(Pkgd, RunsInItsRootWithOnlyTheEnvironmentItIsGiven) {
    // Set on the host: must not leak into pkgd, whose environment identity it would change.
    ::setenv("EXECENV_INDEX", "9", 1);
    Gateway gw(with_pkgd());
    ::unsetenv("EXECENV_INDEX");
    ASSERT_TRUE(gw.up()) << gw.error();
    EXPECT_TRUE(gwtest::Client(gw).wait_for_object(std::string(kEnvPrefix) + "System"));
    EXPECT_TRUE(std::filesystem::is_directory(gw.path("/tmp/opkg-System")));
}

TEST(Pkgd, StartedLaterThenSignalledRestartedAndStopped) {
    GatewayOptions options = with_pkgd();
    options.pkgd_at_start = false;
    Gateway gw(options);
    ASSERT_TRUE(gw.up()) << gw.error();
    gwtest::Client probe(gw);
    const std::string environment = std::string(kEnvPrefix) + "System";
    // Serving, so SIGTERM is handled: its last object is on the bus, registered anew by this run.
    std::uint32_t last_id = 0;
    const auto serving = [&] {
        return testsupport::poll_until(10s, [&] {
            const auto id = probe.wait_for_object(environment);
            if (!id || *id == last_id) return false;
            last_id = *id;
            return true;
        });
    };
    // The n-th run of pkgd, once it runs.
    const auto run = [](decltype(PkgdStatus::runs) n) {
        return [n](const PkgdStatus& s) { return s.state == State::kRunning && s.runs == n; };
    };
    ASSERT_EQ(gw.pkgd_status().value_or(PkgdStatus{}).state, State::kIdle);
    EXPECT_FALSE(gw.stop_pkgd());

    ASSERT_TRUE(gw.start_pkgd());
    const auto first = gw.wait_pkgd(run(1));
    ASSERT_TRUE(first);
    EXPECT_FALSE(gw.start_pkgd()) << "a second pkgd must not be started";
    ASSERT_TRUE(serving());
    ASSERT_TRUE(gw.signal_pkgd(SIGKILL));
    const auto killed = gw.wait_pkgd_exit();
    ASSERT_TRUE(killed);
    EXPECT_TRUE(killed->killed_by(SIGKILL)) << format_pkgd_status(*killed);
    EXPECT_EQ(killed->pid, first->pid);

    ASSERT_TRUE(gw.restart_pkgd());
    ASSERT_TRUE(gw.wait_pkgd(run(2)));
    ASSERT_TRUE(serving());
    ASSERT_TRUE(gw.restart_pkgd());  // while running: stopped, then started again
    const auto third = gw.wait_pkgd(run(3));
    ASSERT_TRUE(third);
    EXPECT_TRUE(third->exited_with(0)) << "the restart stopped the previous run with SIGTERM";
    ASSERT_TRUE(serving());
    ASSERT_TRUE(gw.stop_pkgd());
    const auto stopped = gw.wait_pkgd_exit();
    ASSERT_TRUE(stopped);
    EXPECT_TRUE(stopped->exited_with(0)) << format_pkgd_status(*stopped);
}

}  // namespace
}  // namespace sandbox

// The broker killed (as a crash) and started again while pkgd is idle, while clients list, and while
// an install waits at a known stage: pkgd is back with every object, its registry follows events
// again, and the install has exactly one result for a client that subscribes once the broker is back.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "gateway_client.hpp"
#include "gateway_world.hpp"
#include "poll.hpp"

namespace {

using namespace std::chrono_literals;


enum class Moment { kIdle, kList, kInstall };

class BrokerRestart : public ::testing::TestWithParam<Moment> {};

TEST_P(BrokerRestart, LeavesPkgdWholeAndEachResultDeliveredOnce) {
    const Moment moment = GetParam();
    faults::FaultGateway f("broker-" + std::to_string(static_cast<int>(moment)));
    ASSERT_TRUE(f.ready()) << f.gw.error();
    sandbox::Gateway& gw = f.gw;
    gwtest::Client& before = f.bus;
    const std::string url = f.publish("1.0");
    const auto install = [&](gwtest::Client& bus, int request) {
        return bus.call(faults::kOps, "Install", R"({"RequestID":)" + std::to_string(request) +
                                                     R"(,"OperateID":1,"OperateMID":1,"URL":")" + url + "\"}").status;
    };

    std::atomic<bool> listing = moment == Moment::kList;
    std::atomic<int> lists = 0;
    std::thread lister([&] {
        gwtest::Client own(gw);
        while (listing) lists += own.call(faults::kPackages, "List", "{}", 2000).status == 0;
    });
    if (moment == Moment::kList) {
        ASSERT_TRUE(testsupport::poll_until(10s, [&] { return lists > 10; }));
    }
    if (moment == Moment::kInstall) {
        ASSERT_TRUE(gw.set_fault("catalog", "hold", 1));
        ASSERT_EQ(install(before, 7), 0);
        ASSERT_TRUE(testsupport::poll_until(30s, [&] { return gw.sim_state().json.find("\"held\":0") == std::string::npos; }));
    }

    ASSERT_TRUE(gw.restart_broker());
    gwtest::Client after(gw);
    ASSERT_TRUE(after.listen("Services.Management.LCM") && after.listen("SOFTWAREMODULES.PACKAGE.OPERATIONSRESULT"));
    for (const std::string& object : {faults::kPackages, std::string(faults::kOps), faults::kEnvironment})
        EXPECT_TRUE(after.wait_for_object(object, 10s)) << object << " not back";
    listing = false;
    lister.join();
    EXPECT_TRUE(gw.pkgd_status()->state == sandbox::PkgdStatus::State::kRunning && gw.pkgd_status()->runs == 1u)
        << "pkgd did not stay through the broker's restart";

    // The registry follows events again: an install (or the waiting one) ends Installed.
    if (moment != Moment::kInstall) {
        ASSERT_EQ(install(after, 7), 0);
    }
    const pid_t pkgd = gw.pkgd_status()->pid;
    ASSERT_TRUE(testsupport::poll_until(60s, [&] {
        return !faults::results_of(after, 7).empty() && gw.children_inside(pkgd, "pkgd").empty();
    })) << "no result for the install";
    EXPECT_TRUE(testsupport::poll_until(10s, [&] {
        return after.call(faults::kPackages, "List").first().find("\"Status\":\"Installed\"") != std::string::npos;
    })) << after.call(faults::kPackages, "List").first();
    EXPECT_EQ(faults::results_of(after, 7).size(), 1u);
}

INSTANTIATE_TEST_SUITE_P(Moments, BrokerRestart, ::testing::Values(Moment::kIdle, Moment::kList, Moment::kInstall),
                         [](const ::testing::TestParamInfo<Moment>& m) {
                             return std::string(m.param == Moment::kIdle   ? "Idle"
                                                : m.param == Moment::kList ? "DuringList"
                                                                           : "DuringInstall");
                         });

}  // namespace

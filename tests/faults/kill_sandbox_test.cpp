// A worker, or pkgd itself, killed with SIGKILL at each stage of an install, update and uninstall;
// pkgd started again where it was the victim. The gateway simulator's catalog holds its answer once
// the row's count of LCM events (and results) has gone by, so the worker waits at exactly that
// stage when the kill comes. Afterwards the package tool, the registry, the record files, the
// catalog and the data model agree, and the operation has exactly one result, consistent with them.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>

#include "gateway_client.hpp"
#include "gateway_world.hpp"
#include "poll.hpp"

namespace {

using namespace std::chrono_literals;
using V = std::vector<std::string>;

constexpr int kInternalError = 9002;

enum class Op { kInstall, kUpdate, kUninstall };
enum class Victim { kWorker, kPkgd };

struct Row {
    const char* name;
    Op op;
    int stage;  // LCM events and results let through before the hold; -1: kill once all are out
    V seen;     // the operation's story up to the kill
    Victim victim;
};

const Row kRows[] = {
    {"InstallDownloadingWorker", Op::kInstall, 1, {"20"}, Victim::kWorker},
    {"InstallDownloadingPkgd", Op::kInstall, 1, {"20"}, Victim::kPkgd},
    {"InstallInstallingWorker", Op::kInstall, 3, {"20", "6", "21"}, Victim::kWorker},
    {"InstallInstallingPkgd", Op::kInstall, 3, {"20", "6", "21"}, Victim::kPkgd},
    {"InstallDonePkgd", Op::kInstall, -1, {"20", "6", "21", "result 0", "8"}, Victim::kPkgd},
    {"UpdateUpdatingWorker", Op::kUpdate, 1, {"23", "11"}, Victim::kWorker},
    {"UpdateUpdatingPkgd", Op::kUpdate, 1, {"23", "11"}, Victim::kPkgd},
    {"UpdateDonePkgd", Op::kUpdate, -1, {"23", "11", "result 0", "25"}, Victim::kPkgd},
    {"UninstallDeletingWorker", Op::kUninstall, 1, {"22"}, Victim::kWorker},
    {"UninstallDeletingPkgd", Op::kUninstall, 1, {"22"}, Victim::kPkgd},
    {"UninstallDonePkgd", Op::kUninstall, -1, {"22", "13", "result 0"}, Victim::kPkgd},
};

void PrintTo(const Row& row, std::ostream* out) { *out << row.name; }

class KilledAtAStage : public ::testing::TestWithParam<Row> {};

TEST_P(KilledAtAStage, LeavesOneResultAndAPlaceThatAgrees) {
    const Row& row = GetParam();
    faults::FaultGateway f(std::string("killed-") + row.name);
    ASSERT_TRUE(f.ready()) << f.gw.error();
    sandbox::Gateway& gw = f.gw;
    gwtest::Client& bus = f.bus;
    const std::string v1 = f.publish("1.0");
    if (row.op != Op::kInstall) {
        ASSERT_EQ(f.operate("Install", 1, R"(,"UUID":"u-app","URL":")" + v1 + "\""), 0);
        ASSERT_EQ(bus.story(5, 60s), (V{"20", "6", "21", "result 0", "8"}));
        ASSERT_TRUE(testsupport::poll_until(30s, [&] { return faults::world(gw) == faults::agreeing("1.0"); }))
            << faults::world(gw);
    }
    const std::size_t before = row.op == Op::kInstall ? 0 : 5;
    if (row.stage >= 0) {
        ASSERT_TRUE(gw.set_fault("catalog", "hold", row.stage));
    }
    const std::string fields = row.op == Op::kInstall  ? R"(,"URL":")" + v1 + "\""
                               : row.op == Op::kUpdate ? R"(,"UUID":"u-app","URL":")" + f.publish("1.1") + "\""
                                                       : R"(,"UUID":"u-app")";
    ASSERT_EQ(f.operate(row.op == Op::kInstall ? "Install" : row.op == Op::kUpdate ? "Update" : "Uninstall", 2, fields), 0);
    if (row.stage >= 0) {
        ASSERT_TRUE(testsupport::poll_until(30s, [&] { return gw.sim_state().json.find("\"held\":0") == std::string::npos; }))
            << "nothing held at stage " << row.stage;
    }
    const V story = bus.story(before + row.seen.size(), 60s);
    EXPECT_EQ(V(story.begin() + static_cast<std::ptrdiff_t>(std::min(before, story.size())), story.end()), row.seen);

    const pid_t pkgd = gw.pkgd_status()->pid;
    if (row.stage < 0) {
        // After the operation: its worker has ended (a worker killed between sending its result
        // and noting so is the one window where a result goes out twice).
        ASSERT_TRUE(testsupport::poll_until(30s, [&] { return gw.children_inside(pkgd, "pkgd").empty(); }));
    }
    if (row.victim == Victim::kWorker) {
        const auto workers = gw.children_inside(pkgd, "pkgd");
        ASSERT_EQ(workers.size(), 1u);
        ASSERT_TRUE(gw.signal_inside(workers.front(), SIGKILL));
    } else {
        // pkgd dies with its worker (an OOM kill of both, a power cut): the next run has only the
        // journal and the files to go by. Both are gone before the catalog answers again, so no
        // request of the dead worker lands late and none of the recovery's is held.
        const auto workers = gw.children_inside(pkgd, "pkgd");
        ASSERT_TRUE(gw.signal_pkgd(SIGKILL).ok());
        ASSERT_TRUE(gw.wait_pkgd([](const auto& s) { return s.state != sandbox::PkgdStatus::State::kRunning; }));
        for (const pid_t worker : workers) gw.signal_inside(worker, SIGKILL);
    }
    ASSERT_TRUE(gw.set_fault("catalog", "normal"));  // whatever still waits goes on
    if (row.victim == Victim::kPkgd) {
        ASSERT_TRUE(gw.start_pkgd().ok());
    }
    ASSERT_TRUE(bus.wait_for_object(faults::kEnvironment, 30s));

    // Settled: the result is out and no worker runs.
    const pid_t now = gw.pkgd_status()->pid;
    ASSERT_TRUE(testsupport::poll_until(60s, [&] {
        return !faults::results_of(bus, 2).empty() && gw.children_inside(now, "pkgd").empty();
    })) << "no result for the operation";
    const std::string fault = faults::results_of(bus, 2).front();
    const bool done = fault == "0";
    // A failed install leaves nothing; a failed update or uninstall may have been finished by its
    // recovery (and is reported as failed all the same): either version, as long as all agree.
    const V expected = row.op == Op::kInstall  ? V{done ? "1.0" : ""}
                       : row.op == Op::kUpdate ? (done ? V{"1.1"} : V{"1.0", "1.1"})
                                               : (done ? V{""} : V{"1.0", ""});
    std::string seen;
    EXPECT_TRUE(testsupport::poll_until(10s, [&] {
        seen = faults::world(gw);
        return std::any_of(expected.begin(), expected.end(), [&](const auto& v) { return seen == faults::agreeing(v); });
    })) << seen << "\nwith result " << fault << ", expected one of\n"
        << faults::agreeing(expected.front()) << "\nevents " << ::testing::PrintToString(bus.story(0, 0ms));
    EXPECT_EQ(faults::results_of(bus, 2).size(), 1u);
    EXPECT_EQ(sandbox::format_pkgd_status(*gw.pkgd_status()).substr(0, 7), "running") << "pkgd did not stay up";
    if (row.victim == Victim::kWorker) {
        EXPECT_TRUE(fault == std::to_string(kInternalError) || (done && row.op != Op::kInstall)) << fault;
    }
}

INSTANTIATE_TEST_SUITE_P(Rows, KilledAtAStage, ::testing::ValuesIn(kRows),
                         [](const ::testing::TestParamInfo<Row>& row) { return std::string(row.param.name); });

}  // namespace

// pkgd's registry at scale, in a sandbox gateway:
//
//   - start-up restore of 1000 packages (each with a package file, a DU file and two EU files),
//     timed from starting pkgd until the last per-package object is on the bus;
//   - "List" of those 1000 packages while 300 extra processes live in the gateway (each
//     installed package's status needs a look at the processes), idle and while the worker of an
//     install of a 10 MiB package from the loopback feed runs beside it.
//
// pkgd's private memory (USS: Private_Clean + Private_Dirty of /proc/PID/smaps_rollup) is shown
// with no package, after the restore, and after the listings.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "bench_clock.hpp"
#include "pkgd_process.hpp"
#include "pkgd/record_files.hpp"
#include "sandbox/feed/index.hpp"
#include "sandbox/feed/package.hpp"
#include "sandbox/feed/pki.hpp"
#include "sandbox/gateway.hpp"
#include "ubus/client.hpp"
#include "ubus/json.hpp"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr int kPackages = 1000;
constexpr int kProcesses = 300;
constexpr int kRestoreRuns = 3;
constexpr int kListRuns = 20;
constexpr std::string_view kPackagesObject = "Services.Management.LCM.ExecutionEnvironments.System.Packages";

// Packages as an install leaves them: each with a program and an init script that exist, so
// that its status needs the process look-up.
void seed(const fs::path& root) {
    const pkgd::RecordFiles files((root / "usr/local/package").string(), "System", false);
    fs::create_directories(root / "opt/apps");
    for (int i = 1; i <= kPackages; ++i) {
        const std::string n = std::to_string(i);
        pkgd::pkg_info pkg;
        pkg.id = n;
        pkg.url = "http://feed.example:8080/pkgs/app-" + n + ".ipk";
        pkg.du.index = i;
        pkg.du.uuid = "0d0e0a0d-0000-5000-8000-" + std::string(12 - n.size(), '0') + n;
        pkg.du.name = "app-" + n;
        pkg.du.version = "1.2." + n;
        pkg.du.vendor = "Example Ltd";
        pkg.du.enabled = 1;
        pkg.du.description = "Application number " + n;
        pkg.du.files = "/opt/apps/app-" + n + ";/etc/init.d/app-" + n + ";";
        pkg.du.dependency = "libc, libubox";
        pkg.du.architecture = "arm_cortex-a9";
        pkg.du.size = 4096;
        pkg.du.time = "2024-03-05T07:08:09+01:00";
        pkg.eu.push_back({2 * i, "EU-" + n + "-a", "app-" + n});
        pkg.eu.push_back({2 * i + 1, "EU-" + n + "-b", "app-" + n + "-watch"});
        files.store_du(pkg);
        files.store_eu(pkg);
        files.store_pkg(pkg);
        std::ofstream(root / ("opt/apps/app-" + n)) << "#!/bin/sh\n";
        std::ofstream(root / ("etc/init.d/app-" + n)) << "#!/bin/sh\n";
    }
}

void print_uss(const char* when, const sandbox::Gateway& gw) {
    const std::optional<pid_t> pid = bench::pkgd_host_pid(gw);
    if (pid) std::printf("pkgd USS %-46s %8ld kB\n", when, bench::memory_of(*pid).uss_kb);
}

// Stopping only signals pkgd; the next start needs it gone.
bool stop(const sandbox::Gateway& gw) {
    if (const sandbox::Status stopped = gw.stop_pkgd(); !stopped) {
        std::printf("pkgd not stopped: %s\n", stopped.error().c_str());
        return false;
    }
    return gw.wait_pkgd_exit(std::chrono::seconds(30)).has_value();
}

// Starts pkgd and waits until its execution-environment object, registered right after the
// restore, is on the bus; the time until the last per-package object was added, in ms.
std::optional<double> timed_start(const sandbox::Gateway& gw, int expected_packages) {
    ubus::Connection watcher;
    if (watcher.connect(gw.socket_path().string()) != ubus::kOk) return std::nullopt;
    int packages = 0;
    bool ready = false;
    Clock::time_point last_package{};
    const std::string prefix = std::string(kPackagesObject) + ".";
    const auto added = watcher.listen("ubus.object.add", [&](std::string_view, ubus::Bytes data) {
        for (ubus::Attr a : ubus::AttrList(data)) {
            if (a.name() != "path") continue;
            const std::string_view path = a.as_string();
            if (path.starts_with(prefix)) {
                ++packages;
                last_package = Clock::now();
            } else if (path == "Services.Management.LCM.ExecutionEnvironments.System") {
                ready = true;
            }
        }
    });
    if (added.status != ubus::kOk) return std::nullopt;

    const Clock::time_point start = Clock::now();
    if (const sandbox::Status started = gw.start_pkgd(); !started) {
        std::printf("pkgd not started: %s\n", started.error().c_str());
        return std::nullopt;
    }
    const Clock::time_point deadline = start + std::chrono::seconds(120);
    while (!ready && Clock::now() < deadline) watcher.dispatch(100);
    if (!ready || packages != expected_packages) {
        std::printf("pkgd registered %d of %d packages\n", packages, expected_packages);
        return std::nullopt;
    }
    if (expected_packages == 0) return 0.0;
    return std::chrono::duration<double, std::milli>(last_package - start).count();
}

// A package of 10 MiB of incompressible data in the feed; its URL.
std::string publish_big_package(const sandbox::Gateway& gw, const fs::path& feed_dir) {
    namespace feed = sandbox::feed;
    std::string payload(10u << 20, '\0');
    std::mt19937 random(1);
    for (char& c : payload) c = static_cast<char>(random());
    feed::PackageSpec spec;
    spec.control = "Package: big\nVersion: 1.0\nArchitecture: all\nDescription: ten MiB\n";
    spec.tree = {feed::file_entry("usr/share/big.bin", payload)};
    const feed::Pki pki = feed::load_pki(gw.feed_pki_dir());
    const feed::Package pkg = feed::build_package(spec, pki);
    std::ofstream(feed_dir / "big_1.0_all.ipk", std::ios::binary) << pkg.bytes;
    feed::write_index(feed_dir, feed::index_record(pkg.index_control, "big_1.0_all.ipk", pkg.bytes, pkg.installed_size),
                      pki.signer);
    return gw.feed_url("http") + "/big_1.0_all.ipk";
}

// "List" round trips while an install's worker runs: from the request until its result event.
void list_during_install(const sandbox::Gateway& gw, ubus::Connection& client, std::uint32_t packages,
                         const std::string& url) {
    ubus::Connection events;
    bool done = false;
    if (events.connect(gw.socket_path().string()) != ubus::kOk ||
        events.listen("SOFTWAREMODULES.PACKAGE.OPERATIONSRESULT", [&](std::string_view, ubus::Bytes) {
            done = true;
        }).status != ubus::kOk)
        return;
    std::uint32_t operation = 0;
    ubus::BlobBuf args;
    ubus::json_load(args, R"({"RequestID":1,"OperateID":1,"OperateMID":1,"URL":")" + url + "\"}");
    if (client.lookup_id("SoftwareModules.Package.System", operation) != ubus::kOk ||
        client.invoke(operation, "Install", args.members(), nullptr, 30000) != ubus::kOk) {
        std::printf("install not accepted\n");
        return;
    }
    std::vector<double> ms;
    while (!done && ms.size() < 1000) {
        const auto start = Clock::now();
        client.invoke(packages, "List", {}, nullptr, 30000);
        ms.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
        events.dispatch(0);
    }
    if (!done) events.dispatch(60000);
    std::sort(ms.begin(), ms.end());
    std::printf("List of 1000 packages while an install runs: median %.1f ms, max %.1f ms (%zu lists, install %s)\n",
                ms[ms.size() / 2], ms.back(), ms.size(), done ? "ended" : "did not end");
}

}  // namespace

int main() {
    sandbox::GatewayOptions options;
    options.name = "bench-registry";
    options.pkgd = true;
    options.pkgd_at_start = false;
    options.prepare = seed;
    options.simulator = true;  // the install beside the listings needs the data model
    const fs::path feed_dir = fs::path(BENCH_SCRATCH_DIR) / "registry-feed";
    fs::remove_all(feed_dir);
    fs::create_directories(feed_dir);
    fs::permissions(feed_dir, fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                                  fs::perms::others_read | fs::perms::others_exec);
    options.feed_dir = feed_dir;
    sandbox::Gateway gw(options);
    if (!gw.up()) {
        std::printf("no gateway: %s\n", gw.error().c_str());
        return 1;
    }

    // pkgd without packages, for comparison: its record directory set aside.
    const fs::path pkg_dir = gw.path("/usr/local/package/pkg");
    fs::rename(pkg_dir, pkg_dir.string() + ".aside");
    fs::create_directory(pkg_dir);
    if (!timed_start(gw, 0)) return 1;
    print_uss("with no package", gw);
    if (!stop(gw)) return 1;
    fs::remove(pkg_dir);
    fs::rename(pkg_dir.string() + ".aside", pkg_dir);

    std::vector<double> ms;
    for (int run = 0; run < kRestoreRuns; ++run) {
        if (run > 0 && !stop(gw)) return 1;
        const std::optional<double> took = timed_start(gw, kPackages);
        if (!took) return 1;
        ms.push_back(*took);
    }
    std::sort(ms.begin(), ms.end());
    std::printf("restore of %d packages until the last object is on the bus: median %.1f ms (%d runs)\n",
                kPackages, ms[ms.size() / 2], kRestoreRuns);
    print_uss("after restoring 1000 packages", gw);

    // Processes that outlive the shell that started them; they end with the gateway.
    const auto started = gw.sh("i=0; while [ $i -lt " + std::to_string(kProcesses) +
                               " ]; do sleep 600 </dev/null >/dev/null 2>&1 & i=$((i+1)); done");
    if (!started.ok()) return 1;

    ubus::Connection client;
    std::uint32_t id = 0;
    client.set_request_timeout(30000);
    if (client.connect(gw.socket_path().string()) != ubus::kOk ||
        client.lookup_id(kPackagesObject, id) != ubus::kOk)
        return 1;
    std::size_t reply_bytes = 0;
    int status = 0;
    bench::report("List of 1000 packages, 300 extra processes", kListRuns, [&] {
        status = client.invoke(
            id, "List", {}, [&](ubus::Bytes m) { reply_bytes = m.size(); }, 30000);
    });
    std::printf("List reply: status %d, %zu bytes\n", status, reply_bytes);
    list_during_install(gw, client, id, publish_big_package(gw, feed_dir));
    print_uss("after the listings", gw);
    return status == ubus::kOk && reply_bytes > 0 ? 0 : 1;
}

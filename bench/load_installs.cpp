// load_installs (`./dev load`): pkgd under load in a sandbox gateway. A burst of Install requests
// (default 1000), each of a distinct small package from the loopback feed, while clients (default
// 8) call List in a loop. Prints how many were accepted and how many results came (each accepted
// operation must have exactly one), pkgd's peak RSS and USS sampled from /proc during the run, and
// the List round trips during the burst (median, p99, max), and what every place of the gateway
// holds afterwards. Exit status 1 when an accepted operation has no result or more than one, or
// when the places disagree (as many packages installed, listed, recorded, in the catalog and in
// the data model as installs succeeded).
//
//   load_installs [--count N] [--clients K]
#include <stdlib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "pkgd_process.hpp"
#include "sandbox/feed/index.hpp"
#include "sandbox/feed/package.hpp"
#include "sandbox/feed/pki.hpp"
#include "sandbox/feed/service_feed.hpp"
#include "sandbox/gateway.hpp"
#include "sandbox/inventory.hpp"
#include "ubus/client.hpp"

namespace {

namespace fs = std::filesystem;
namespace feed = sandbox::feed;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr std::string_view kOps = "SoftwareModules.Package.System";
constexpr std::string_view kPackages = "Services.Management.LCM.ExecutionEnvironments.System.Packages";
constexpr std::string_view kResultEvent = "SOFTWAREMODULES.PACKAGE.OPERATIONSRESULT";
constexpr ubus::Policy kResultArgs[] = {{"RequestID", ubus::Type::Int32}, {"FaultCode", ubus::Type::Int32}};
constexpr auto kPerOperation = 5s;  // the longest wait for all results, per operation

struct Options {
    int count = 1000;
    int clients = 8;
};

// "ld-<i>", one small file each, all in one signed index.
void publish(const fs::path& dir, const fs::path& pki_dir, int count) {
    const feed::Pki pki = feed::load_pki(pki_dir);
    std::vector<std::string> records;
    for (int i = 0; i < count; ++i) {
        feed::PackageSpec spec;
        const std::string name = "ld-" + std::to_string(i);
        spec.control = "Package: " + name + "\nVersion: 1.0\nArchitecture: all\nMaintainer: Load\n"
                       "Section: utils\nDescription: load test package\n";
        spec.tree = {feed::file_entry("opt/load/" + name, "payload " + name + "\n", 0644)};
        const feed::Package pkg = feed::build_package(spec, pki);
        std::ofstream(dir / (name + ".ipk"), std::ios::binary) << pkg.bytes;
        records.push_back(feed::index_record(pkg.index_control, name + ".ipk", pkg.bytes, pkg.installed_size));
    }
    feed::write_index(dir, feed::index_text(records), pki.signer);
}

// pkgd's memory, sampled until stopped; the peaks.
struct MemoryWatch {
    std::atomic<bool> running = true;
    bench::Memory peak;
    std::thread thread;
    explicit MemoryWatch(const sandbox::Gateway& gw)
        : thread([this, &gw] {
              while (running) {
                  if (const auto pid = bench::pkgd_host_pid(gw)) {
                      const bench::Memory m = bench::memory_of(*pid);
                      peak.rss_kb = std::max(peak.rss_kb, m.rss_kb);
                      peak.uss_kb = std::max(peak.uss_kb, m.uss_kb);
                  }
                  std::this_thread::sleep_for(50ms);
              }
          }) {}
    void stop() {
        running = false;
        thread.join();
    }
};

// Clients calling List in a loop; the round trips made while `recording`.
struct Listers {
    std::atomic<bool> running = true;
    std::atomic<bool> recording = false;
    std::atomic<int> failures = 0;
    std::mutex mutex;
    std::vector<double> ms;
    std::vector<std::thread> threads;

    Listers(const std::string& socket, int clients) {
        for (int i = 0; i < clients; ++i) threads.emplace_back([this, socket] { loop(socket); });
    }
    void loop(const std::string& socket) {
        ubus::Connection bus;
        bus.set_request_timeout(30000);
        std::uint32_t id = 0;
        if (bus.connect(socket) != ubus::kOk || bus.lookup_id(kPackages, id) != ubus::kOk) {
            ++failures;
            return;
        }
        std::vector<double> mine;
        while (running) {
            const auto start = Clock::now();
            const int status = bus.invoke(id, "List", {}, [](ubus::Bytes) {}, 30000);
            if (status != ubus::kOk) ++failures;
            if (recording) mine.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
        }
        const std::lock_guard lock(mutex);
        ms.insert(ms.end(), mine.begin(), mine.end());
    }
    void stop() {
        running = false;
        for (std::thread& t : threads) t.join();
    }
};

double percentile(std::vector<double> v, double p) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    return v[std::min(v.size() - 1, static_cast<std::size_t>(p * static_cast<double>(v.size())))];
}

bool parse_options(int argc, char** argv, Options& o) {
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string_view option = argv[i];
        int& into = option == "--count" ? o.count : option == "--clients" ? o.clients : o.count;
        if (option != "--count" && option != "--clients") return false;
        into = std::atoi(argv[i + 1]);
    }
    return argc % 2 == 1 && o.count > 0 && o.clients >= 0;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (!parse_options(argc, argv, options)) {
        std::fprintf(stderr, "usage: load_installs [--count N] [--clients K]\n");
        return 2;
    }
    const feed::ScratchDir feed_dir(BENCH_SCRATCH_DIR, "load-feed");
    sandbox::GatewayOptions gw_options;
    gw_options.name = "load";
    gw_options.pkgd = gw_options.simulator = true;
    gw_options.feed_dir = feed_dir.path();
    sandbox::Gateway gw(gw_options);
    if (!gw.up()) {
        std::fprintf(stderr, "load_installs: %s\n", gw.error().c_str());
        return 1;
    }
    publish(feed_dir.path(), gw.feed_pki_dir(), options.count);

    ubus::Connection bus;
    bus.set_request_timeout(30000);
    std::uint32_t ops = 0;
    std::map<int, int> results;  // RequestID -> results received
    int failed = 0;
    if (bus.connect(gw.socket_path().string()) != ubus::kOk || bus.lookup_id(kOps, ops) != ubus::kOk ||
        bus.listen(kResultEvent, [&](std::string_view, ubus::Bytes data) {
               const auto tb = ubus::parse(kResultArgs, data);
               ++results[tb[0].as_i32()];
               failed += tb[1].as_i32() != 0;
           }).status != ubus::kOk) {
        std::fprintf(stderr, "load_installs: pkgd is not on the bus\n");
        return 1;
    }
    MemoryWatch memory(gw);
    const bench::Memory idle = bench::memory_of(bench::pkgd_host_pid(gw).value_or(0));
    Listers listers(gw.socket_path().string(), options.clients);

    const auto start = Clock::now();
    listers.recording = true;
    std::vector<int> accepted;
    for (int i = 0; i < options.count; ++i) {
        ubus::BlobBuf args;
        args.add_i32("RequestID", i + 1);
        args.add_i32("OperateID", 1);
        args.add_i32("OperateMID", 1);
        args.add_string("URL", gw.feed_url("http") + "/ld-" + std::to_string(i) + ".ipk");
        if (bus.invoke(ops, "Install", args.members(), nullptr, 30000) == ubus::kOk) accepted.push_back(i + 1);
    }
    const double burst_s = std::chrono::duration<double>(Clock::now() - start).count();
    const auto deadline = start + kPerOperation * options.count;
    auto progress = Clock::now();
    while (results.size() < accepted.size() && Clock::now() < deadline) {
        bus.dispatch(200);
        if (Clock::now() - progress > 30s) {
            progress = Clock::now();
            std::printf("  ... %zu of %zu results\n", results.size(), accepted.size());
            std::fflush(stdout);
        }
    }
    const double all_s = std::chrono::duration<double>(Clock::now() - start).count();
    listers.recording = false;
    // A second result for an operation would come soon after the first: pkgd gets this long.
    for (const auto quiet_until = Clock::now() + 3s; Clock::now() < quiet_until;) bus.dispatch(100);
    listers.stop();
    memory.stop();
    const bench::Memory last = bench::memory_of(bench::pkgd_host_pid(gw).value_or(0));

    int missing = 0, duplicated = 0;
    for (int id : accepted) {
        const auto it = results.find(id);
        missing += it == results.end();
        duplicated += it != results.end() && it->second > 1;
    }
    std::printf("Install requests        %d, accepted %zu (burst of %.2f s)\n", options.count, accepted.size(), burst_s);
    std::printf("results                 %zu operations with a result, %d failed, %d missing, %d with more than one\n",
                results.size(), failed, missing, duplicated);
    std::printf("all results after       %.1f s (%.2f operations/s)\n", all_s,
                static_cast<double>(results.size()) / all_s);
    std::printf("List during the burst   %zu calls by %d clients, %d failed: median %.1f ms, p99 %.1f ms, max %.1f ms\n",
                listers.ms.size(), options.clients, listers.failures.load(), percentile(listers.ms, 0.5),
                percentile(listers.ms, 0.99), percentile(listers.ms, 1.0));
    std::printf("pkgd memory             idle RSS %ld kB USS %ld kB; peak RSS %ld kB USS %ld kB; after RSS %ld kB USS %ld kB\n",
                idle.rss_kb, idle.uss_kb, memory.peak.rss_kb, memory.peak.uss_kb, last.rss_kb, last.uss_kb);
    // The simulator's log of every request would not fit one reply any more: only it is forgotten.
    const bool reset = gw.sim_reset().ok();
    const sandbox::Inventory inventory = sandbox::take_inventory(gw, kPackages);
    const int installed = static_cast<int>(results.size()) - failed;
    const bool agree = reset && inventory.agrees(installed, 0);
    std::printf("afterwards              %s (%s)\n", inventory.counts().c_str(), agree ? "agree" : "DISAGREE");
    return accepted.size() == static_cast<std::size_t>(options.count) && missing == 0 && duplicated == 0 && agree ? 0 : 1;
}

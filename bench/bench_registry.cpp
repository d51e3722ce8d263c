// pkgd's registry at scale, in a sandbox gateway:
//
//   - start-up restore of 1000 packages (each with a package file, a DU file and two EU files),
//     timed from starting pkgd until the last per-package object is on the bus, against its
//     floor: reading the same record files and registering one object per package, with the
//     per-package methods, on a bare bus connection (timed inside the gateway);
//   - "List" of those 1000 packages while 300 extra processes live in the gateway (each
//     installed package's status needs a look at the processes), idle and while the worker of an
//     install of a 10 MiB package from the loopback feed runs beside it; its floor is one scan of
//     the gateway's /proc, building a reply of the same members, and a round trip carrying that
//     reply between two bare connections through the same broker.
//
// pkgd's private memory (USS: Private_Clean + Private_Dirty of /proc/PID/smaps_rollup) is shown
// with no package, after the restore, and after the listings, each with its goal and split by
// mapping (a library's private pages are mostly its relocated data).
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "bench_clock.hpp"
#include "daemon/source_args.hpp"
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
constexpr double kRestoreGoal = 1.5;
constexpr double kListGoal = 2.0;
constexpr long kIdleUssGoalKb = 1024;
constexpr long kPackagesUssGoalKb = 4096;
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

// The kB figure of an smaps line ("Private_Dirty:   12 kB").
long smaps_kb(const std::string& line) {
    std::istringstream fields(line.substr(line.find(':') + 1));
    long kb = 0;
    fields >> kb;
    return kb;
}

// Private pages in kB. The clean ones are pages of files that no other process maps at the
// moment (a library's code counts here unless another program uses it too), so they depend on
// what else runs; the dirty ones (relocated data, heap, stack) are pkgd's alone.
struct Private {
    long clean = 0;
    long dirty = 0;
    long total() const { return clean + dirty; }
    void add(const std::string& line) {
        if (line.starts_with("Private_Clean:")) clean += smaps_kb(line);
        if (line.starts_with("Private_Dirty:")) dirty += smaps_kb(line);
    }
};

Private uss(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/smaps_rollup");
    Private total;
    for (std::string line; std::getline(in, line);) total.add(line);
    return total;
}

// The same per mapped file (the heap, the stack and anonymous mappings by their kind), largest
// first: where the private pages go.
std::vector<std::pair<Private, std::string>> uss_by_mapping(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/smaps");
    std::map<std::string, Private> kb;
    std::string current = "[anonymous]";
    for (std::string line; std::getline(in, line);) {
        if (line.starts_with("Private_")) {
            kb[current].add(line);
        } else if (!line.empty() && std::isxdigit(static_cast<unsigned char>(line[0])) &&
                   line.find('-') < line.find(' ')) {
            // "start-end perms offset dev inode   path": the path is the sixth field.
            std::istringstream fields(line);
            std::string skip, path;
            for (int i = 0; i < 5; ++i) fields >> skip;
            fields >> path;
            current = path.empty() ? "[anonymous]" : fs::path(path).filename().string();
        }
    }
    std::vector<std::pair<Private, std::string>> sorted;
    for (const auto& [name, k] : kb)
        if (k.total() > 0) sorted.emplace_back(k, name);
    std::sort(sorted.begin(), sorted.end(), [](const auto& a, const auto& b) { return a.first.total() > b.first.total(); });
    return sorted;
}

void print_uss(const char* when, const sandbox::Gateway& gw, long goal_kb, bool by_mapping = false) {
    const std::optional<pid_t> pid = bench::pkgd_host_pid(gw);
    if (!pid) return;
    const Private all = uss(*pid);
    std::printf("pkgd USS %-49s %8ld kB (goal at most %ld kB; dirty %ld kB)\n", when, all.total(), goal_kb,
                all.dirty);
    if (by_mapping)
        for (const auto& [kb, name] : uss_by_mapping(*pid))
            std::printf("  %-56s %8ld kB (dirty %ld kB)\n", name.c_str(), kb.total(), kb.dirty);
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

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

void print_ratio(const char* what, double figure, double floor, double goal) {
    std::printf("%-58s %.2f (goal at most %.1f)\n", what, figure / floor, goal);
}

// The per-package objects' methods as the broker sees them, answering nothing.
std::shared_ptr<const ubus::ObjectType> bare_package_methods() {
    static constexpr ubus::Policy kSet[] = {{"Enabled", ubus::Type::Bool}};
    const ubus::MethodHandler none = [](ubus::Request&) { return ubus::kOk; };
    return ubus::ObjectType::make({{"Get", {}, none},
                                   {"get", {}, none},
                                   {"Set", kSet, none},
                                   {"set", kSet, none},
                                   {"Delete", {}, none},
                                   {"del", {}, none},
                                   {"Update", pkgd::source_list_policy, none},
                                   {"Start", {}, none},
                                   {"Stop", {}, none},
                                   {"IsLatestVersion", pkgd::source_list_policy, none}});
}

struct RestoreFloor {
    double read_ms = 0;
    double register_ms = 0;
};

// The restore's floor, inside the gateway while pkgd is stopped: the record files read in the
// directory's order, then one object registered per package.
std::optional<RestoreFloor> restore_floor(const sandbox::Gateway& gw) {
    const sandbox::CommandResult r = gw.run_inside(
        [&](std::string& out) {
            Clock::time_point start = Clock::now();
            const pkgd::RecordFiles files("/usr/local/package", "System", false);
            std::vector<std::string> ids;
            for (const fs::directory_entry& entry : fs::directory_iterator(files.pkg_dir())) {
                pkgd::pkg_info pkg;
                pkg.id = entry.path().filename().string();
                files.load_pkg(pkg);
                if (pkg.du.name) ids.push_back(pkg.id);
            }
            const double read_ms = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
            start = Clock::now();
            ubus::Connection bus;
            if (bus.connect() != ubus::kOk) return 1;
            const auto methods = bare_package_methods();
            int added = 0;
            for (const std::string& id : ids)
                added += bus.add_object(std::string(kPackagesObject) + "." + id, methods).status == ubus::kOk;
            out = std::to_string(read_ms) + " " +
                  std::to_string(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
            return added == kPackages ? 0 : 1;
        },
        std::chrono::seconds(60));
    if (!r.ok()) {
        std::printf("restore floor failed (exit %d): %s\n", r.exit_code, r.err.c_str());
        return std::nullopt;
    }
    RestoreFloor f;
    std::istringstream(r.out) >> f.read_ms >> f.register_ms;
    return f;
}

// One look at every process's executable, as a status needs; the processes seen.
int scan_proc() {
    DIR* dir = ::opendir("/proc");
    if (!dir) return 0;
    int seen = 0;
    char path[280];
    while (const dirent* entry = ::readdir(dir)) {
        if (entry->d_name[0] < '0' || entry->d_name[0] > '9') continue;
        std::snprintf(path, sizeof path, "/proc/%s/exe", entry->d_name);
        struct stat st {};
        if (::stat(path, &st) == 0) ++seen;
    }
    ::closedir(dir);
    return seen;
}

// Identities of every package's files (two each), as a package's status needs besides the
// processes'; the files found.
int stat_package_files() {
    int found = 0;
    for (int i = 1; i <= kPackages; ++i) {
        struct stat st {};
        const std::string n = std::to_string(i);
        found += ::stat(("/opt/apps/app-" + n).c_str(), &st) == 0;
        found += ::stat(("/etc/init.d/app-" + n).c_str(), &st) == 0;
    }
    return found;
}

struct ScanTimes {
    double proc_ms = 0;
    double files_ms = 0;
};

// Medians of `runs` scans of the gateway's /proc and of its package files, timed inside it.
std::optional<ScanTimes> scan_times(const sandbox::Gateway& gw, int runs) {
    const sandbox::CommandResult r = gw.run_inside(
        [&](std::string& out) {
            std::vector<double> proc, files;
            for (int i = 0; i < runs; ++i) {
                Clock::time_point start = Clock::now();
                if (scan_proc() < kProcesses) return 1;
                proc.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
                start = Clock::now();
                if (stat_package_files() != 2 * kPackages) return 1;
                files.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
            }
            out = std::to_string(median(proc)) + " " + std::to_string(median(files));
            return 0;
        },
        std::chrono::seconds(60));
    if (!r.ok()) return std::nullopt;
    ScanTimes t;
    std::istringstream(r.out) >> t.proc_ms >> t.files_ms;
    return t;
}

// CPU time (user + system) the process has used so far, in ms.
double cpu_ms(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::istringstream fields(text.substr(text.rfind(')') + 2));  // from field 3, the state
    std::string skip;
    for (int field = 3; field < 14; ++field) fields >> skip;
    double utime = 0, stime = 0;
    fields >> utime >> stime;
    return (utime + stime) * 1000.0 / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

// The members of `from` added one by one, as a handler building that reply adds them.
void rebuild(ubus::BlobBuf& out, ubus::AttrList from) {
    for (const ubus::Attr a : from) {
        switch (a.type()) {
        case ubus::Type::Table: {
            const std::size_t table = out.open_table(a.name());
            rebuild(out, a.children());
            out.close(table);
            break;
        }
        case ubus::Type::Array: {
            const std::size_t array = out.open_array(a.name());
            rebuild(out, a.children());
            out.close(array);
            break;
        }
        case ubus::Type::String: out.add_string(a.name(), a.as_string()); break;
        case ubus::Type::Int32: out.add_i32(a.name(), a.as_i32()); break;
        case ubus::Type::Int8: out.add_u8(a.name(), a.as_u8()); break;
        default: out.add_attr(a); break;
        }
    }
}

// The listing's floor beside pkgd's median `list_ms`: one /proc scan, building a reply of the
// same members, and a round trip of that reply between bare connections through the broker.
void list_floor(const sandbox::Gateway& gw, ubus::Bytes reply, double list_ms) {
    const std::optional<ScanTimes> scan = scan_times(gw, kListRuns);
    ubus::BlobBuf built;
    const double build_ms = bench::report("floor: building the same reply", kListRuns, [&] {
                                built.reset();
                                rebuild(built, ubus::AttrList(reply));
                            }) / 1000.0;
    ubus::Connection owner, caller;
    const auto type = ubus::ObjectType::make({{"List", {}, [&](ubus::Request& req) {
                                                   req.reply(built.members());
                                                   return ubus::kOk;
                                               }}});
    const std::string socket = gw.socket_path().string();
    ubus::AddResult object;
    if (!scan || owner.connect(socket) != ubus::kOk || caller.connect(socket) != ubus::kOk ||
        (object = owner.add_object("Bench.Floor.List", type)).status != ubus::kOk) {
        std::printf("List floor not measured\n");
        return;
    }
    std::atomic<bool> stop = false;
    std::thread serve([&] {
        while (!stop && owner.dispatch(20) == ubus::kOk) {
        }
    });
    const double trip_ms = bench::report("floor: round trip of that reply, bare clients", kListRuns, [&] {
                               caller.invoke(object.id, "List", {}, [](ubus::Bytes) {}, 30000);
                           }) / 1000.0;
    stop = true;
    serve.join();
    std::printf("%-58s median %10.1f us\n", "floor: one scan of the gateway's /proc", scan->proc_ms * 1000.0);
    std::printf("%-58s median %10.1f us\n", "not in the floor: stat of the 2000 package files", scan->files_ms * 1000.0);
    const double floor = scan->proc_ms + build_ms + trip_ms;
    std::printf("%-58s %10.1f ms\n", "List floor (scan + build + round trip)", floor);
    print_ratio("ratio List / floor", list_ms, floor, kListGoal);
}

}  // namespace

int main() {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);  // each figure as soon as it is known
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
    print_uss("with no package", gw, kIdleUssGoalKb, true);
    if (!stop(gw)) return 1;
    fs::remove(pkg_dir);
    fs::rename(pkg_dir.string() + ".aside", pkg_dir);

    std::vector<double> ms, floors, reads, registrations;
    for (int run = 0; run < kRestoreRuns; ++run) {
        // Alternated, so that a busy moment of the machine weighs on both alike.
        if (run > 0 && !stop(gw)) return 1;
        const std::optional<RestoreFloor> floor = restore_floor(gw);
        const std::optional<double> took = timed_start(gw, kPackages);
        if (!took || !floor) return 1;
        ms.push_back(*took);
        reads.push_back(floor->read_ms);
        registrations.push_back(floor->register_ms);
        floors.push_back(floor->read_ms + floor->register_ms);
    }
    std::printf("%-58s median %10.1f ms   (%d runs)\n", "restore of 1000 packages until the last object is on the bus",
                median(ms), kRestoreRuns);
    std::printf("%-58s median %10.1f ms   (%d runs)\n", "floor: read the record files, register 1000 bare objects",
                median(floors), kRestoreRuns);
    std::printf("  %-56s median %10.1f ms\n", "of which reading", median(reads));
    std::printf("  %-56s median %10.1f ms\n", "of which registering", median(registrations));
    print_ratio("ratio restore / floor", median(ms), median(floors), kRestoreGoal);
    print_uss("after restoring 1000 packages", gw, kPackagesUssGoalKb, true);

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
    std::vector<std::uint8_t> reply;
    int status = 0;
    const std::optional<pid_t> pkgd_pid = bench::pkgd_host_pid(gw);
    const double cpu_before = pkgd_pid ? cpu_ms(*pkgd_pid) : 0;
    const double list_us = bench::report("List of 1000 packages, 300 extra processes", kListRuns, [&] {
        status = client.invoke(
            id, "List", {}, [&](ubus::Bytes m) { reply.assign(m.begin(), m.end()); }, 30000);
    });
    if (pkgd_pid)
        std::printf("%-58s mean %10.1f ms\n", "pkgd's CPU time per List (user + system)",
                    (cpu_ms(*pkgd_pid) - cpu_before) / kListRuns);
    std::printf("List reply: status %d, %zu bytes\n", status, reply.size());
    if (status != ubus::kOk || reply.empty()) return 1;
    list_floor(gw, reply, list_us / 1000.0);
    list_during_install(gw, client, id, publish_big_package(gw, feed_dir));
    print_uss("after the listings", gw, kPackagesUssGoalKb, true);
    return 0;
}

// pkgd's return to the bus after a broker crash: the time from the broker accepting connections
// again to the daemon's last object (the execution-environment object) being registered anew,
// with 0, 100 and 1000 packages, each registered with an object of its own. The broker (started by
// the program) stays down for a varying while, so that its return falls anywhere in the daemon's
// interval between attempts. A daemon context on a scratch directory serves from the main thread;
// the crashes and the timing run on another.
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <thread>
#include <vector>

#include "bench_broker.hpp"
#include "daemon/daemon_context.hpp"
#include "daemon/daemon_objects.hpp"
#include "daemon/ee_object.hpp"
#include "daemon/package_operation_object.hpp"
#include "daemon/package_registry.hpp"
#include "daemon/reconnect.hpp"
#include "ubus/loop.hpp"

namespace {

using namespace std::chrono_literals;

constexpr int kCrashes = 20;
constexpr std::string_view kPackages = "Services.Management.LCM.ExecutionEnvironments.System.Packages";
constexpr std::string_view kEnvironment = "Services.Management.LCM.ExecutionEnvironments.System";

// Milliseconds from the broker accepting again to the environment object being on the bus, once
// per crash.
std::vector<double> crash_repeatedly(bench::Broker& broker) {
    std::vector<double> ms;
    for (int i = 0; i < kCrashes; ++i) {
        const auto accepting = broker.crash_and_restart(std::chrono::milliseconds(40 + 37 * i % 300));
        ubus::Connection probe;
        std::uint32_t id = 0;
        if (probe.connect(broker.socket()) != ubus::kOk) break;
        while (probe.lookup_id(kEnvironment, id) != ubus::kOk) std::this_thread::sleep_for(200us);
        ms.push_back(
            std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - accepting).count());
    }
    return ms;
}

void print(std::size_t packages, std::vector<double> ms) {
    if (ms.empty())
        return (void)std::printf("%zu packages: the daemon's objects never came back\n", packages);
    std::sort(ms.begin(), ms.end());
    double sum = 0;
    for (double m : ms) sum += m;
    std::printf(
        "objects back after a broker restart, %4zu packages: median %6.1f ms  mean %6.1f ms  max %6.1f ms"
        "  (%zu restarts, an attempt every %lld ms)\n",
        packages, ms[ms.size() / 2], sum / static_cast<double>(ms.size()), ms.back(), ms.size(),
        static_cast<long long>(pkgd::kReconnectInterval.count()));
}

}  // namespace

int main() {
    using namespace pkgd;
    bench::Broker broker;
    const std::filesystem::path dir = std::filesystem::temp_directory_path() / "bench-reconnect";
    for (const char* sub : {"pkg", "du", "eu", "ee"}) std::filesystem::create_directories(dir / sub);

    daemon_context d(RecordFiles(dir.string(), "System", false), ee_identity{}, real_system_env());
    d.object = kPackages;
    d.pkg_name = package_operation_object_name("System");
    d.s_ee_object = kEnvironment;
    if (d.ctx.connect(broker.socket()) != ubus::kOk || add_service_objects(d) != ubus::kOk) return 1;
    add_ee_object(d);

    ubus::Loop loop;
    d.ctx.attach(loop);
    int status = 0;
    {
        bus_reconnect reconnect(d, loop, broker.socket());
        for (const std::size_t packages : {0, 100, 1000}) {
            // While the loop stands still: nothing is waiting on the bus meanwhile.
            while (d.s_pkgs.size() < packages)
                if (!add_pkg(d, std::to_string(d.s_pkgs.size() + 1))) return 1;
            std::atomic<bool> done = false;
            std::vector<double> ms;
            std::thread crasher([&] {
                ms = crash_repeatedly(broker);
                done = true;
            });
            std::function<void()> check = [&] { done ? loop.stop() : void(loop.add_timer(10ms, check)); };
            loop.add_timer(10ms, check);
            loop.run();
            crasher.join();
            print(packages, ms);
            status = ms.size() == kCrashes ? status : 1;
        }
    }
    d.ctx.detach();
    std::filesystem::remove_all(dir);
    return status;
}

// pkgd's loop while a call waits on a peer: the round trip of a per-package "Get" with nothing
// waiting, and again while an "IsLatestVersion" waits for its query (held back until the
// measurement is over); both medians and their ratio. A daemon context on a scratch directory and
// our broker (started by the program); the loop runs on the main thread, the callers on another.
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <thread>

#include "bench_broker.hpp"
#include "bench_clock.hpp"
#include "daemon/daemon_context.hpp"
#include "daemon/package_registry.hpp"
#include "ubus/loop.hpp"

namespace {

using namespace std::chrono_literals;

constexpr int kRuns = 2000;
constexpr std::string_view kPackages = "Services.Management.LCM.ExecutionEnvironments.System.Packages";

struct Pipe {
    int fds[2] = {-1, -1};
    Pipe() {
        if (::pipe(fds) != 0) std::perror("pipe"), std::exit(1);
    }
    ~Pipe() {
        for (int fd : fds)
            if (fd >= 0) ::close(fd);
    }
    void close_write() { ::close(std::exchange(fds[1], -1)); }
};

int call(ubus::Connection& bus, std::uint32_t object, std::string_view method, int timeout_ms) {
    return bus.invoke(
        object, method, {}, [](ubus::Bytes) {}, timeout_ms);
}

// The caller's side: both measurements, then lets the query answer.
void measure(const std::string& socket, Pipe& query_started, Pipe& query_gate, std::atomic<bool>& done) {
    ubus::Connection bus, waiter;
    std::uint32_t object = 0;
    const std::string name = std::string(kPackages) + ".1";
    if (bus.connect(socket) != ubus::kOk || waiter.connect(socket) != ubus::kOk ||
        bus.lookup_id(name, object) != ubus::kOk) {
        std::fputs("cannot reach the daemon's package object\n", stderr);
        done = true;
        return;
    }
    const auto get = [&] { call(bus, object, "Get", 5000); };
    const double idle = bench::report("per-package Get, nothing waiting", kRuns, get);

    std::thread latest([&] { call(waiter, object, "IsLatestVersion", 20000); });
    char byte = 0;
    if (::read(query_started.fds[0], &byte, 1) != 1) std::fputs("the query did not start\n", stderr);
    const double waiting = bench::report("per-package Get while an IsLatestVersion waits", kRuns, get);
    query_gate.close_write();
    latest.join();
    std::printf("%-58s %.2f\n", "ratio (waiting / nothing waiting)", waiting / idle);
    done = true;
}

}  // namespace

int main() {
    using namespace pkgd;
    bench::Broker broker;
    const std::filesystem::path dir = std::filesystem::temp_directory_path() / "bench-waits";
    for (const char* sub : {"pkg", "du", "eu", "ee"}) std::filesystem::create_directories(dir / sub);

    daemon_context d(RecordFiles(dir.string(), "System", false), ee_identity{}, real_system_env());
    d.object = kPackages;
    if (d.ctx.connect(broker.socket()) != ubus::kOk) return 1;
    pkg_info fields;
    fields.status = PKG_STATUS_INSTALLED;
    fields.url = "http://feed.example/app.ipk";
    fields.du.name = "app";
    if (!add_pkg(d, "1", fields)) return 1;

    Pipe query_started, query_gate;
    d.waits.query = [&](const pkg_info&) {  // in the query child: says it runs, then waits
        query_gate.close_write();
        (void)!::write(query_started.fds[1], "s", 1);
        for (char byte; ::read(query_gate.fds[0], &byte, 1) > 0;) {
        }
        return 0;
    };

    ubus::Loop loop;
    d.ctx.attach(loop);
    std::atomic<bool> done = false;
    std::thread caller(measure, broker.socket(), std::ref(query_started), std::ref(query_gate),
                       std::ref(done));
    std::function<void()> check = [&] { done ? loop.stop() : void(loop.add_timer(10ms, check)); };
    loop.add_timer(10ms, check);
    loop.run();
    caller.join();
    d.waits.clear();
    d.ctx.detach();
    std::filesystem::remove_all(dir);
    return 0;
}

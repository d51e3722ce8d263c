// gateway-demo (`./dev run`): brings a sandbox gateway up with the broker, the gateway simulator,
// pkgd and a signed feed served on loopback, shows pkgd's execution environment through the bus
// CLI, walks a package through its life (see package_walk.hpp), prints how to reach pkgd and the
// feed from another terminal, and stays up until Ctrl-C; then everything is stopped and the root
// removed (kept when PKGD_SANDBOX_KEEP is set).
//
//   gateway-demo [--once] [--pkgd PATH]
//
// --once stops pkgd (SIGTERM, waiting as long as it takes) and the gateway right after the walk,
// for runs that judge pkgd by how it ends, such as `./dev valgrind`; --pkgd runs PATH as pkgd
// (a wrapper that runs the project's pkgd under a checker, say).
#include <signal.h>

#include <chrono>
#include <cstdio>
#include <optional>
#include <string>
#include <thread>

#include "default_tools.hpp"
#include "demo_feed.hpp"
#include "package_walk.hpp"
#include "sandbox/feed/service_feed.hpp"
#include "sandbox/gateway.hpp"
#include "sandbox/root_paths.hpp"
#include "ubus/client.hpp"
#include "ubus/json.hpp"

namespace {

using namespace std::chrono_literals;

constexpr std::string_view kEnvironments = "Services.Management.LCM.ExecutionEnvironments.";
// pkgd asks the catalog for this environment; the simulator's default configuration knows it.
constexpr std::string_view kEnvironmentName = "System";
constexpr auto kStartUp = 30s;       // pkgd may wait out a catalog time-out at start-up
constexpr auto kLauncherStop = 15s;  // pkgd, simulator and broker, 3 s grace each
// The feed's login. A throwaway of this gateway's; it is shown once, at the end, so that the user
// can try the commands, and hidden in the commands the walk prints.
constexpr const char* kFeedUser = "demo";
constexpr const char* kFeedPassword = "demo-feed-pass";

#ifdef PKGD_DEMO_CLI
constexpr const char* kCli = PKGD_DEMO_CLI;
#else
// A build without the CLI: the reply is printed with the client library, and the instructions name
// "ubus" without a path.
constexpr const char* kCli = nullptr;
#endif

// The object of the environment pkgd serves: the one whose ".Packages" object exists too.
std::optional<std::string> environment_object(ubus::Connection& bus) {
    std::vector<std::string> candidates;
    bus.lookup(std::string(kEnvironments) + "*", [&](const ubus::ObjectInfo& object) {
        if (!object.path.starts_with(kEnvironments)) return;
        const std::string_view rest = object.path.substr(kEnvironments.size());
        if (rest.find('.') == std::string_view::npos) candidates.emplace_back(object.path);
    });
    for (const std::string& path : candidates) {
        std::uint32_t id = 0;
        if (bus.lookup_id(path + ".Packages", id) == ubus::kOk) return path;
    }
    return std::nullopt;
}

std::optional<std::string> wait_for_environment(ubus::Connection& bus) {
    const auto deadline = std::chrono::steady_clock::now() + kStartUp;
    while (std::chrono::steady_clock::now() < deadline) {
        if (auto path = environment_object(bus)) return path;
        std::this_thread::sleep_for(200ms);
    }
    return std::nullopt;
}

void show_get(ubus::Connection& bus, const sandbox::Gateway& gw, const std::string& object) {
    std::printf("\n$ ubus -s %s call %s Get\n", gw.socket_path().c_str(), object.c_str());
    std::fflush(stdout);
    if (kCli != nullptr) {
        sandbox::SpawnSpec spec;
        spec.argv = {kCli, "-s", gw.socket_path().string(), "call", object, "Get"};
        spec.env = sandbox::environment_with({});
        const sandbox::CommandResult r = sandbox::run_command(spec, 10s);
        std::printf("%s%s", r.out.c_str(), r.err.c_str());
        if (!r.ok()) std::printf("(exit status %d)\n", r.exit_code);
        return;
    }
    std::uint32_t id = 0;
    std::string json;
    int status = bus.lookup_id(object, id);
    if (status == ubus::kOk) {
        status = bus.invoke(
            id, "Get", {},
            [&json](ubus::Bytes members) {
                ubus::json_format_list(json, members, false, ubus::JsonFormat::indented());
            },
            5000);
    }
    std::printf("%s\n", status == ubus::kOk ? json.c_str() : ("status " + std::to_string(status)).c_str());
}

void print_feed(const sandbox::Gateway& gw, const demo::PublishedFeed& published) {
    std::printf("\nThe feed (user \"%s\", password \"%s\"):\n", kFeedUser, kFeedPassword);
    for (const char* scheme : {"http", "https", "ftp"}) std::printf("  %s/\n", gw.feed_url(scheme).c_str());
    if (published.error.empty())
        std::printf("  packages: %s (1.0), %s (1.1)\n", published.first_file.c_str(), published.newer_file.c_str());
}

void print_instructions(const sandbox::Gateway& gw, const std::optional<std::string>& environment) {
    const std::string ubus =
        std::string(kCli != nullptr ? kCli : "ubus") + " -s " + gw.socket_path().string();
    const std::string ee = environment.value_or(std::string(kEnvironments) + "<id>");
    const std::string id = ee.substr(kEnvironments.size());
    std::printf(
        "\nThe sandbox gateway is up in %s\n"
        "  (process output in var/run/sandbox/, pkgd's log records in var/log/messages)\n"
        "\nCall pkgd from another terminal:\n"
        "  %s list\n"
        "  %s call %s Get\n"
        "  %s call %s.Packages List\n"
        "  %s call SoftwareModules.Package.%s Install '{\"RequestID\":1,\"OperateID\":1,\"OperateMID\":1,"
        "\"URL\":\"%s/<package>.ipk\",\"Username\":\"%s\",\"Password\":\"...\"}'\n"
        "  %s listen Services.Management.LCM\n"
        "What the simulated peers were asked:\n"
        "  %s call Sandbox.GatewaySim state\n"
        "A shell inside the gateway:\n"
        "  %s exec %s -- /bin/sh\n"
        "\nCtrl-C stops the gateway.\n",
        gw.root().c_str(), ubus.c_str(), ubus.c_str(), ee.c_str(), ubus.c_str(), ee.c_str(), ubus.c_str(),
        id.c_str(), gw.feed_url("http").c_str(), kFeedUser, ubus.c_str(), ubus.c_str(), PKGD_SANDBOX_LAUNCHER,
        gw.root().c_str());
    std::fflush(stdout);
}

sigset_t g_stop_signals;

// Ctrl-C during the walk: the signal waits, blocked, for the end of the current step.
bool stop_requested() {
    sigset_t pending;
    sigpending(&pending);
    for (int sig : {SIGINT, SIGTERM, SIGHUP})
        if (sigismember(&pending, sig) == 1) return true;
    return false;
}

// The walk, once pkgd is up and the feed holds the demonstration's package.
void walk(const sandbox::Gateway& gw, const std::string& environment, const demo::PublishedFeed& published) {
    if (!published.error.empty()) {
        std::printf("\nNo feed for the walk: %s\n", published.error.c_str());
        return;
    }
    demo::WalkSetup setup;
    setup.socket = gw.socket_path().string();
    setup.environment = environment;
    setup.environment_id = environment.substr(kEnvironments.size());
    setup.feed_http = gw.feed_url("http");
    setup.user = kFeedUser;
    setup.password = kFeedPassword;
    setup.first_file = published.first_file;
    setup.newer_file = published.newer_file;
    demo::walk_package_life(setup, stop_requested);
}

struct DemoOptions {
    bool once = false;
    std::string pkgd;
};

std::optional<DemoOptions> parse_options(int argc, char** argv) {
    DemoOptions o;
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg = argv[i];
        if (arg == "--once") {
            o.once = true;
        } else if (arg == "--pkgd" && i + 1 < argc) {
            o.pkgd = argv[++i];
        } else {
            return std::nullopt;
        }
    }
    return o;
}

// pkgd may take long to end under a checker that reports at exit: it is given the time.
constexpr auto kPkgdEnd = 120s;

}  // namespace

int main(int argc, char** argv) {
    const auto demo_options = parse_options(argc, argv);
    if (!demo_options) {
        std::fprintf(stderr, "usage: gateway-demo [--once] [--pkgd PATH]\n");
        return 2;
    }
    // Blocked before anything is started, so that Ctrl-C during start-up still tears down in order;
    // the programs started inside get their own signal mask.
    sigset_t& stop_signals = g_stop_signals;
    sigemptyset(&stop_signals);
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&stop_signals, sig);
    sigprocmask(SIG_BLOCK, &stop_signals, nullptr);

    const sandbox::feed::ScratchDir feed_dir(std::filesystem::temp_directory_path(), "pkgd-demo-feed");
    if (!feed_dir.made()) {
        std::fprintf(stderr, "gateway-demo: cannot make a directory for the feed\n");
        return 1;
    }

    sandbox::GatewayOptions options;
    options.name = "demo";
    options.simulator = true;
    options.pkgd = !sandbox::project_pkgd().empty() || !demo_options->pkgd.empty();
    options.pkgd_path = demo_options->pkgd;
    options.pkgd_env = {"EXECENV_INDEX=" + std::string(kEnvironmentName)};
    options.feed_dir = feed_dir.path();
    options.feed_user = kFeedUser;
    options.feed_password = kFeedPassword;
    std::printf("Bringing the sandbox gateway up (broker, gateway simulator, feed servers%s) ...\n",
                options.pkgd ? ", pkgd" : "; pkgd is not built");
    std::fflush(stdout);
    sandbox::Gateway gw(options);
    if (!gw.up()) {
        std::fprintf(stderr, "gateway-demo: %s\n", gw.error().c_str());
        return 1;
    }
    const demo::PublishedFeed published = demo::publish_demo_feed(feed_dir.path(), gw.feed_pki_dir());

    ubus::Connection bus;
    if (bus.connect(gw.socket_path().string()) != ubus::kOk) {
        std::fprintf(stderr, "gateway-demo: cannot connect to %s\n", gw.socket_path().c_str());
        return 1;
    }
    std::optional<std::string> environment;
    if (options.pkgd) {
        environment = wait_for_environment(bus);
        if (environment) {
            show_get(bus, gw, *environment);
        } else {
            std::printf("\npkgd has not offered its objects within %lld s; see %s\n",
                        static_cast<long long>(kStartUp.count()),
                        sandbox::output_log(gw.root(), "pkgd").c_str());
        }
    }
    bus.close();
    if (environment) walk(gw, *environment, published);
    if (demo_options->once) {
        const auto end = gw.signal_pkgd(SIGTERM).ok() ? gw.wait_pkgd_exit(kPkgdEnd) : std::nullopt;
        std::printf("\npkgd ended: %s\n", end && end->last_wait_status
                                               ? sandbox::format_wait_status(*end->last_wait_status).c_str()
                                               : "not within the time");
        gw.shut_down();
        return end && end->exited_with(0) ? 0 : 1;
    }
    print_feed(gw, published);
    print_instructions(gw, environment);

    siginfo_t info{};
    while (sigwaitinfo(&stop_signals, &info) < 0) {
    }
    std::printf("\nStopping the sandbox gateway ...\n");
    std::fflush(stdout);
    // Ctrl-C reaches the launcher too, which then stops everything in order; a second signal from us
    // would make it kill everything at once.
    const bool from_terminal = info.si_code == SI_KERNEL;
    if (!from_terminal || !gw.wait_launcher_exit(kLauncherStop)) gw.shut_down();
    return 0;
}

// gateway-sim: the gateway's LCM catalog, CWMP data-model agent and service manager, simulated
// for the sandbox gateway (see simulator.hpp).
//
//   gateway-sim [-s SOCKET] [-c CONFIG.json] [--fault PEER=MODE[:N]]...
//
// CONFIG holds {"environments": [...]} (environments.hpp); without it the catalog knows the one
// native environment "System". --fault starts a peer misbehaving, before any client can reach it
// (pkgd reads the catalog as it starts). When $SANDBOX_NOTIFY_FD names a descriptor, one byte is
// written to it once every object is on the bus. Runs until SIGINT or SIGTERM, or until the broker
// goes away (exit status 1).
#include <unistd.h>

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "simulator.hpp"
#include "ubus/json.hpp"

namespace {

using namespace sandbox::sim;

constexpr int kUsage = 2;

struct Options {
    std::string socket = ubus::kDefaultSocket;
    std::string config;
    std::vector<FaultSetting> faults;
};

int usage(const std::string& problem) {
    if (!problem.empty()) std::fprintf(stderr, "gateway-sim: %s\n", problem.c_str());
    std::fputs(
        "usage: gateway-sim [-s SOCKET] [-c CONFIG.json] [--fault PEER=MODE[:N]]...\n"
        "  PEER: catalog, datamodel, services;  MODE: normal, absent, slow[:DELAY_MS], refuse[:STATUS]\n",
        stderr);
    return kUsage;
}

bool parse_options(int argc, char** argv, Options& options, std::string& problem) {
    for (int i = 1; i < argc; ++i) {
        const std::string_view option = argv[i];
        const bool has_value = i + 1 < argc;
        if (option == "-s" && has_value) {
            options.socket = argv[++i];
        } else if (option == "-c" && has_value) {
            options.config = argv[++i];
        } else if (option == "--fault" && has_value) {
            const auto setting = parse_fault_setting(argv[++i]);
            if (!setting) {
                problem = "not PEER=MODE[:N]: " + std::string(argv[i]);
                return false;
            }
            options.faults.push_back(*setting);
        } else {
            problem = "bad option or missing value: " + std::string(option);
            return false;
        }
    }
    return true;
}

bool load_environments(const std::string& path, std::vector<Environment>& out, std::string& problem) {
    if (path.empty()) {
        out = default_environments();
        return true;
    }
    ubus::BlobBuf config;
    if (!ubus::json_load_file(config, path)) {
        problem = path + ": not readable as a JSON object";
        return false;
    }
    auto environments = parse_configuration(config.members(), problem);
    if (!environments) {
        problem = path + ": " + problem;
        return false;
    }
    out = std::move(*environments);
    return true;
}

// Tells whoever started us that the objects are on the bus; the descriptor is not passed on to the
// init scripts.
void notify_ready() {
    const char* text = std::getenv("SANDBOX_NOTIFY_FD");
    if (text == nullptr) return;
    const std::string_view value = text;
    int fd = -1;
    auto [end, ec] = std::from_chars(value.data(), value.data() + value.size(), fd);
    ::unsetenv("SANDBOX_NOTIFY_FD");
    if (ec != std::errc() || end != value.data() + value.size() || fd < 0) return;
    const char byte = '\n';
    if (::write(fd, &byte, 1) != 1) std::perror("gateway-sim: readiness notification");
    ::close(fd);
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    std::string problem;
    if (!parse_options(argc, argv, options, problem)) return usage(problem);
    std::vector<Environment> environments;
    if (!load_environments(options.config, environments, problem)) {
        std::fprintf(stderr, "gateway-sim: %s\n", problem.c_str());
        return 1;
    }

    ubus::Loop loop;
    Simulator simulator(loop, std::move(environments));
    if (simulator.start(options.socket, options.faults, problem) != ubus::kOk) {
        std::fprintf(stderr, "gateway-sim: %s\n", problem.c_str());
        return 1;
    }
    notify_ready();
    loop.run();
    return simulator.lost() ? 1 : 0;
}

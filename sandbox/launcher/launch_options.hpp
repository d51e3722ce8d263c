// What a sandbox gateway is started with.
#pragma once

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "sandbox/root_builder.hpp"

namespace sandbox {

struct LaunchOptions {
    std::filesystem::path root;
    std::filesystem::path busybox = "/bin/busybox";
    std::filesystem::path broker;             // host path of the broker binary; empty: no broker
    std::filesystem::path simulator;          // host path of the gateway simulator; empty: none
    bool simulator_notifies = false;          // wait until it writes to $SANDBOX_NOTIFY_FD
    std::vector<std::string> simulator_args;  // after "-s SOCKET"
    std::filesystem::path pkgd;               // host path of pkgd; empty: none
    bool pkgd_at_start = true;                // otherwise pkgd waits for a "start" request
    std::vector<std::string> pkgd_env;        // NAME=VALUE, for pkgd only
    std::vector<ToolBinding> tools;
    bool user_namespace = false;  // needed when not run as root
    std::chrono::milliseconds ready_timeout{20000};
    std::chrono::milliseconds stop_grace{3000};  // between SIGTERM and SIGKILL
};

// Where the broker and the simulator appear inside the root.
inline constexpr std::string_view kBrokerInside = "/opt/pkgd/bin/ubusd";
inline constexpr std::string_view kSimulatorInside = "/opt/pkgd/bin/gateway-sim";

// The tools plus the broker and the simulator, as bound into the root.
std::vector<ToolBinding> bound_tools(const LaunchOptions& options);

}  // namespace sandbox

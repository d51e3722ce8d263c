// What a sandbox gateway is started with.
#pragma once

#include <chrono>
#include <cstdint>
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
    std::filesystem::path opkg;               // host path of the package tool, bound as /bin/opkg; empty: none
    // The feed: a directory served on loopback over HTTP, HTTPS and FTP; empty: no feed servers.
    std::filesystem::path feed_dir;
    std::filesystem::path feed_pki;  // a "pkgd-feed pki" directory; empty: one made under the root
    std::string feed_user;           // basic authentication and FTP login; empty: open HTTP(S)
    std::filesystem::path feed_password_file;  // the password, its first line (never on a command line)
    std::uint64_t root_size_mib = 0;  // a size-limited file system for the root; 0: the host's
    bool user_namespace = false;  // needed when not run as root
    std::chrono::milliseconds ready_timeout{20000};
    std::chrono::milliseconds stop_grace{3000};  // between SIGTERM and SIGKILL
};

// Where the broker and the simulator appear inside the root.
inline constexpr std::string_view kBrokerInside = "/opt/pkgd/bin/ubusd";
inline constexpr std::string_view kSimulatorInside = "/opt/pkgd/bin/gateway-sim";
inline constexpr std::string_view kOpkgInside = "/bin/opkg";

// The tools plus the broker and the simulator, as bound into the root.
std::vector<ToolBinding> bound_tools(const LaunchOptions& options);

}  // namespace sandbox

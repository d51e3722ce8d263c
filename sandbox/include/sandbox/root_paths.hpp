// Fixed places inside a sandbox root, known to the launcher, the fixture and the tools.
#pragma once

#include <filesystem>
#include <string_view>

namespace sandbox {

inline constexpr std::string_view kBusSocket = "/var/run/ubus/ubus.sock";
inline constexpr std::string_view kSyslogSocket = "/dev/log";
inline constexpr std::string_view kSyslogFile = "/var/log/messages";

// The launcher's own state: readiness, control socket, pkgd's last exit, process output.
inline constexpr std::string_view kStateDir = "/var/run/sandbox";
inline constexpr std::string_view kReadyFile = "/var/run/sandbox/ready";
inline constexpr std::string_view kControlSocket = "/var/run/sandbox/control.sock";
inline constexpr std::string_view kPkgdStatusFile = "/var/run/sandbox/pkgd.status";

// The feed servers: their base URLs ({"http": ..., "https": ..., "ftp": ...}), the test PKI the
// launcher makes when given none, and the servers' configuration (password files are 0600).
inline constexpr std::string_view kFeedUrlsFile = "/var/run/sandbox/feed.json";
inline constexpr std::string_view kFeedPkiDir = "/var/run/sandbox/feed-pki";
inline constexpr std::string_view kFeedServerDir = "/var/run/sandbox/feed";
// Trust: pkgd's signature anchor, and the bundle HTTPS clients in the root verify servers with.
inline constexpr std::string_view kOpkgCaFile = "/etc/opkg/opkg.pem";
inline constexpr std::string_view kCaBundle = "/etc/ssl/certs/ca-certificates.crt";

// Where the project's own binaries (broker, simulator, tools) appear inside, read-only.
inline constexpr std::string_view kToolDir = "/opt/pkgd/bin";

// The search path of every process started inside.
inline constexpr std::string_view kSearchPath =
    "/usr/local/bin:/usr/bin:/bin:/usr/local/sbin:/usr/sbin:/sbin:/opt/pkgd/bin";

// Host path of `inside`, an absolute path as seen from within the root.
std::filesystem::path host_path(const std::filesystem::path& root, std::string_view inside);

// Host path of the output file of a process the launcher runs ("ubusd", "pkgd", ...).
std::filesystem::path output_log(const std::filesystem::path& root, std::string_view process_name);

}  // namespace sandbox

// A root on a file system of its own size, so that free space, the disk check and a disk filling up
// during an install are real.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <string_view>

#include "sandbox/status.hpp"

namespace sandbox {

// These stay on the host's file system and visible at their usual host paths: the launcher's
// state (ready file, control socket, logs, feed URLs), the bus socket and the syslog file.
inline constexpr std::array<std::string_view, 3> kHostKeptDirs = {"/var/run/sandbox", "/var/run/ubus", "/var/log"};

// In the caller's (private) mount namespace: mounts a tmpfs of `mib` MiB over `root`, copies what
// the root held into it, and binds the kept directories back from the host. Everything else in the
// root is then reached from the host only through /proc/<pid of a sandbox process>/root.
Status mount_size_limited_root(const std::filesystem::path& root, std::uint64_t mib);

}  // namespace sandbox

// The mount operations the launcher makes inside its private mount namespace.
#pragma once

#include <filesystem>
#include <vector>

#include "sandbox/status.hpp"

namespace sandbox {

// Stops mount events from travelling between this namespace and the host, both ways.
Status make_mounts_private();

Status mount_proc(const std::filesystem::path& target);

// Makes `source` (a file or directory, with what is mounted below it) visible at `target`.
Status bind(const std::filesystem::path& source, const std::filesystem::path& target);
Status bind_read_only(const std::filesystem::path& source, const std::filesystem::path& target);

// A read-only union of `layers` (uppermost first) at `target`.
Status overlay_read_only(const std::vector<std::filesystem::path>& layers,
                         const std::filesystem::path& target);

}  // namespace sandbox

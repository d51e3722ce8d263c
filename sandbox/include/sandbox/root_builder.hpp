// Builds (or completes) a gateway root directory on the host. Idempotent: an existing root keeps its
// content; only what is missing is created. Needs no privileges: the mounts that make host libraries,
// devices and tools visible inside are made by the launcher in its private namespace, on the mount
// points created here.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "sandbox/status.hpp"

namespace sandbox {

// A host file made visible read-only at `inside` (absolute path within the root).
struct ToolBinding {
    std::filesystem::path host;
    std::string inside;
};

struct RootSpec {
    std::filesystem::path root;
    std::filesystem::path busybox = "/bin/busybox";  // a static busybox: the root's userland
    std::vector<ToolBinding> tools;
};

Status build_root(const RootSpec& spec);

// "HOST:INSIDE" as given on the command line.
bool parse_tool_binding(std::string_view text, ToolBinding& out);

}  // namespace sandbox

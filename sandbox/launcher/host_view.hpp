// The parts of the host a root sees: the library directories (so that dynamically linked programs
// run after the chroot), the linker cache and the time-zone data, all read-only; and the harmless
// device nodes (null, zero, random, urandom).
#pragma once

#include <filesystem>

#include "sandbox/status.hpp"

namespace sandbox {

// Creates the mount points (or, where the host has a symbolic link, the same link) in the root.
Status prepare_host_view(const std::filesystem::path& root);

// Mounts the host paths on them. Where the root has content of its own in such a directory (its
// /usr/lib/opkg, say), the root sees the union of both, read-only, except that its own
// subdirectories stay writable.
Status mount_host_view(const std::filesystem::path& root);

}  // namespace sandbox

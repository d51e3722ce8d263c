// Unix-domain sockets by path: listening (replacing a stale socket file) and connecting.
#pragma once

#include <sys/stat.h>

#include <filesystem>
#include <string>

#include "ubus/fd.hpp"

namespace sandbox {

// A non-blocking, close-on-exec socket bound at `path` with permissions `mode`; stream sockets
// also listen. An existing file at `path` is removed first. Empty on failure, with `error` set.
ubus::UniqueFd listen_unix(const std::filesystem::path& path, int type, mode_t mode, std::string& error);

// A blocking, close-on-exec socket connected to `path`; empty when nothing accepts there.
ubus::UniqueFd connect_unix(const std::filesystem::path& path, int type);

}  // namespace sandbox

// What the operations share: their log lines and events about the package.
#pragma once

#include <string>
#include <string_view>

#include "pkgd/engine_parts.hpp"

namespace pkgd {

// The log line of `format` with its "%s" filled, in order, by the deployment unit's UUID, the URL
// (without user-info) and the environment's name; the remove's formats take the UUID and the
// environment's name only.
void log_operation(engine_context& ctx, std::string_view format, const pkg_info& pkg);

// An LCM event about the package ("PackageId" = its per-package object's name).
inline void package_event_about(engine_context& ctx, const lcm_event& ev, const pkg_info& pkg) {
    ctx.peers.event(ev, kLcmPackageIdKey, pkg.object_name);
}

// "Services.Management.LCM.ExecutionEnvironments.<name>", the value of the environment events.
std::string ee_event_value(const pkg_info& pkg);

// "<tmp>/<file name>", the path a download leaves the package at.
std::string local_package_path(const engine_context& ctx, std::string_view file_name);

// Whether the path exists (without following a final link).
bool path_exists(const std::string& path);

}  // namespace pkgd

namespace pkgd {

// "opkg download <URL without user-info> -f <conf> -e 3600"; a URL opkg would read as an option
// is refused with -1 and nothing runs.
int opkg_download(engine_context& ctx, const pkg_info& pkg);

// "opkg remove <name>". A name opkg would read as an option (or no name) is refused with -1 and
// nothing runs: package names come from feeds and control files.
int opkg_remove(engine_context& ctx, std::string_view name);

}  // namespace pkgd

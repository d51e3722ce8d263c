// What every command works with: its invocation, the configuration, and where the state lives.
#pragma once

#include <string>
#include <string_view>

#include "command_line.hpp"
#include "config.hpp"
#include "fetch.hpp"
#include "package_db.hpp"

namespace opkg {

inline constexpr int exit_ok = 0;
inline constexpr int exit_failed = 1;
inline constexpr int exit_usage = 2;

inline constexpr const char* ca_bundle_inside = "/etc/ssl/certs/ca-certificates.crt";

struct Context {
    Invocation invocation;
    Config config;

    // The host path of an absolute path inside the installation root.
    std::string path(std::string_view inside) const { return invocation.root + std::string(inside); }
    PackageDb db() const { return PackageDb{path(info_dir_inside)}; }
    FetchOptions fetch_options() const {
        return FetchOptions{config.proxy_user, config.proxy_passwd, invocation.timeout_seconds,
                            path(ca_bundle_inside)};
    }
};

// The commands; each reports on the error output and returns the exit status.
int run_update(const Context& context);
int run_download(const Context& context);
int run_install(const Context& context);
int run_remove(const Context& context);
int run_list_installed(const Context& context);
int run_info(const Context& context);
int run_sha256sum(const Context& context);

// Prints "opkg: MESSAGE" on the error output.
void report(std::string_view message);

}  // namespace opkg

// The command line as the package tool takes it on gateways: options may stand before or after
// the sub-command ("opkg -f CONF update" and "opkg update -f CONF").
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace opkg {

inline constexpr const char* default_config_path = "/etc/opkg.conf";

struct Invocation {
    std::string command;                // "update", "install", ...
    std::vector<std::string> operands;  // what follows it, options taken out
    std::string config_path = default_config_path;
    bool config_given = false;            // -f: then the file must exist
    std::string root;                     // -o: prefix of every state path; empty means "/"
    std::optional<long> timeout_seconds;  // -e: bound on a download's transfer time
};

struct InvocationResult {
    Invocation invocation;
    std::string error;  // a usage error
    bool ok() const { return error.empty(); }
};

InvocationResult parse_command_line(const std::vector<std::string_view>& args);

std::string usage_text();

}  // namespace opkg

// A package's control file: "Key: value" lines, a value continued on lines that begin with a
// blank. Pure, so the installer, `info` and the tests share one reading of it.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace opkg {

struct ControlFields {
    std::vector<std::pair<std::string, std::string>> fields;  // in file order
    // The value of `key` (case-insensitive, as keys are on gateways), continuation lines joined
    // with "\n"; nullopt when absent.
    std::optional<std::string> get(std::string_view key) const;
};

ControlFields parse_control(std::string_view text);

// A package name becomes part of file names in the info directory: letters, digits and ".+-_",
// not starting with ".".
bool valid_package_name(std::string_view name);

}  // namespace opkg

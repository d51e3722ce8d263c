// "Install"/"add" of the Packages object: a new package from a structured source.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "daemon/daemon_context.hpp"
#include "daemon/source_args.hpp"
#include "ubus/client.hpp"

namespace pkgd {

// An install request as read. The views point into the request's arguments.
struct install_args {
    std::optional<std::string_view> id, uuid;
    source_args source;
    std::optional<std::uint8_t> disable_autostart;
};
install_args read_install_args(ubus::Bytes args);

// Registers a new package and queues its install. Replies "OK" with "Id", the new package's
// identifier; "ARGUMENT_REQUIRED_MISSING" when the Source lacks Protocol, Address or Resource;
// "OPERATION_ERROR" when the identifier is taken or the operation cannot be started (the package
// stays registered then).
int package_install(daemon_context& d, ubus::Request& req);

// The method `name` ("Install" or "add") with its advertised arguments, answered from `d`.
ubus::MethodDef package_install_method(std::string_view name, daemon_context& d);

}  // namespace pkgd

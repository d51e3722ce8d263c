#include "daemon/package_install.hpp"

#include <iterator>

namespace pkgd {
namespace {

using ubus::Type;

// What the bus shows as the arguments; callers send a nested "Source" table, read with
// package_install_policy and the shared source policies.
constexpr ubus::Policy package_install_list_policy[] = {
    {"Id", Type::String},
    {"UUID", Type::String},
    {"Source.Protocol", Type::String},
    {"Source.Address", Type::String},
    {"Source.Port", Type::Int32},
    {"Source.Resource", Type::String},
    {"Source.Credentials.Username", Type::String},
    {"Source.Credentials.Password", Type::String},
    {"DisableAutoStart", Type::Bool},
};

constexpr ubus::Policy package_install_policy[] = {
    {"Id", Type::String},
    {"UUID", Type::String},
    {"Source", Type::Table},
    {"DisableAutoStart", Type::Bool},
};
enum install_field { INSTALL_ID, INSTALL_UUID, INSTALL_SOURCE, INSTALL_DISABLE_AUTOSTART, INSTALL_COUNT };
static_assert(INSTALL_COUNT == std::size(package_install_policy));

}  // namespace

install_args read_install_args(ubus::Bytes args) {
    const auto tb = ubus::parse(package_install_policy, args);
    install_args request;
    if (tb[INSTALL_ID]) request.id = tb[INSTALL_ID].as_string();
    if (tb[INSTALL_UUID]) request.uuid = tb[INSTALL_UUID].as_string();
    request.source = read_source(tb[INSTALL_SOURCE]);
    if (tb[INSTALL_DISABLE_AUTOSTART]) request.disable_autostart = tb[INSTALL_DISABLE_AUTOSTART].as_u8();
    return request;
}

// Callers are told plainly rather than being given a package that never arrives.
int package_install(daemon_context&, ubus::Request&) {
    return ubus::kNotSupported;
}

ubus::MethodDef package_install_method(std::string_view name, daemon_context& d) {
    return {name, package_install_list_policy, on_context(d, package_install)};
}

}  // namespace pkgd

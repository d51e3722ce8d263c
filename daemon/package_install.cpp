#include "daemon/package_install.hpp"

#include <iterator>
#include <string>

#include "daemon/operation_request.hpp"
#include "daemon/package_registry.hpp"
#include "daemon/reply_envelope.hpp"

namespace pkgd {
namespace {

using ubus::Type;

// What the bus shows as the arguments; callers send a nested "Source" table, read with
// package_install_policy and the shared source policies.
constexpr ubus::Policy install_identity_list[] = {{"Id", Type::String}, {"UUID", Type::String}};
constexpr ubus::Policy install_options_list[] = {{"DisableAutoStart", Type::Bool}};
constexpr auto package_install_list_policy =
    join_policies(install_identity_list, source_list_policy, install_options_list);

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

// The package is registered (status New) before its operation is queued; when no worker can be
// started for it, it stays registered and the caller is told the request failed.
int package_install(daemon_context& d, ubus::Request& req) {
    const install_args request = read_install_args(req.args());
    const source_args& source = request.source;
    if (!source.protocol || !source.address || !source.resource)
        return hlapi_send(req, HLAPI_ARGUMENT_REQUIRED_MISSING);

    std::string id(request.id.value_or("").substr(0, 255));
    if (id.empty()) id = std::to_string(free_id(d));
    pkg_info fields;
    fields.du.uuid = request.uuid.value_or("");
    fields.url = source_url(source);
    fields.username = source.username.value_or("");
    fields.password = source.password.value_or("");
    fields.disable_autostart = request.disable_autostart.value_or(0);
    const std::shared_ptr<pkg_info> pkg = add_pkg(d, id, std::move(fields));
    if (!pkg) return hlapi_send(req, HLAPI_OPERATION_ERROR);
    if (queue_operation(d, new_operation(OPERATION_INSTALL, pkg)) != kQueueOk)
        return hlapi_send(req, HLAPI_OPERATION_ERROR);

    ubus::BlobBuf body;
    body.add_string("Id", pkg->id);
    return hlapi_send(req, HLAPI_OK, body.root());
}

ubus::MethodDef package_install_method(std::string_view name, daemon_context& d) {
    return {name, package_install_list_policy, on_context(d, package_install)};
}

}  // namespace pkgd

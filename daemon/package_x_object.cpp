#include "daemon/package_x_object.hpp"

#include <iterator>

#include "daemon/operation_request.hpp"
#include "daemon/package_table.hpp"
#include "daemon/package_x_waits.hpp"
#include "daemon/reply_envelope.hpp"
#include "pkgd/run_state.hpp"

namespace pkgd {
namespace {

using ubus::Type;

constexpr ubus::Policy package_x_set_policy[] = {
    {"Enabled", Type::Bool},
};

// What the bus shows as the arguments of "Update" and "IsLatestVersion": the Source alone, read
// with package_x_update_policy and the shared source policies.
constexpr const auto& package_x_update_list_policy = source_list_policy;

constexpr ubus::Policy package_x_update_policy[] = {
    {"Source", Type::Table},
};
enum update_field { UPDATE_SOURCE, UPDATE_COUNT };
static_assert(UPDATE_COUNT == std::size(package_x_update_policy));

// The methods of every per-package object, each handler answering from `d`.
std::shared_ptr<const ubus::ObjectType> package_x_methods(daemon_context& d) {
    return ubus::ObjectType::make({
        {"Get", {}, on_context(d, package_x_get)},
        {"get", {}, on_context(d, package_x_get)},
        {"Set", package_x_set_policy, on_context(d, package_x_set)},
        {"set", package_x_set_policy, on_context(d, package_x_set)},
        {"Delete", {}, on_context(d, package_x_delete)},
        {"del", {}, on_context(d, package_x_delete)},
        {"Update", package_x_update_list_policy, on_context(d, package_x_update)},
        {"Start", {}, on_context(d, package_x_start)},
        {"Stop", {}, on_context(d, package_x_stop)},
        {"IsLatestVersion", package_x_update_list_policy, on_context(d, package_x_islatestversion)},
    });
}

}  // namespace

source_args read_update_args(ubus::Bytes args) {
    return read_source(ubus::parse(package_x_update_policy, args)[UPDATE_SOURCE]);
}

int package_x_get(daemon_context& d, ubus::Request& req) {
    ubus::BlobBuf body;
    if (const registered_pkg* entry = d.s_pkgs.find_object(req.path())) {
        ProcessSnapshot processes(d.sys);
        dump_pkg(body, *entry->pkg, package_get_status(*entry->pkg, processes));
    }
    return hlapi_send(req, HLAPI_OK, body.root());
}

// Whether a package is enabled is its deployment unit's business, not the caller's: the call is
// accepted and changes nothing.
int package_x_set(daemon_context&, ubus::Request& req) {
    return hlapi_send(req, HLAPI_OK);
}

// Queued whatever the package's status and whatever is queued for it already: an uninstall asked
// for during the install runs after it.
int package_x_delete(daemon_context& d, ubus::Request& req) {
    const registered_pkg* entry = d.s_pkgs.find_object(req.path());
    if (!entry || queue_operation(d, new_operation(OPERATION_REMOVE, entry->pkg)) != kQueueOk)
        return hlapi_send(req, HLAPI_OPERATION_ILLEGAL);
    return hlapi_send(req, HLAPI_OK);
}

// Without a Source the package updates from its own recorded source; an empty user name or
// password keeps the recorded one, so credentials cannot be cleared this way.
int package_x_update(daemon_context& d, ubus::Request& req) {
    const ubus::Attr source_table = ubus::parse(package_x_update_policy, req.args())[UPDATE_SOURCE];
    const source_args source = read_source(source_table);
    const bool given = static_cast<bool>(source_table);
    if (given && (!source.protocol || !source.address || !source.resource))
        return hlapi_send(req, HLAPI_ARGUMENT_REQUIRED_MISSING);
    const registered_pkg* entry = d.s_pkgs.find_object(req.path());
    if (!entry) return hlapi_send(req, HLAPI_OPERATION_ILLEGAL);

    const std::shared_ptr<pkg_info> copy = update_working_copy(*entry->pkg);
    copy->disable_autostart = entry->pkg->disable_autostart;
    if (given && !source.protocol->empty()) copy->url = source_url(source);
    if (!source.username.value_or("").empty()) copy->username = *source.username;
    if (!source.password.value_or("").empty()) copy->password = *source.password;
    if (queue_operation(d, new_operation(OPERATION_UPDATE, copy)) != kQueueOk)
        return hlapi_send(req, HLAPI_OPERATION_ILLEGAL);
    return hlapi_send(req, HLAPI_OK);
}

ubus::AddResult add_package_x_object(daemon_context& d, std::string_view name) {
    if (!d.package_x_type) d.package_x_type = package_x_methods(d);
    return d.ctx.add_object(name, d.package_x_type);
}

}  // namespace pkgd

#include "daemon/package_x_object.hpp"

#include "daemon/daemon_context.hpp"
#include "daemon/package_table.hpp"
#include "daemon/reply_envelope.hpp"
#include "pkgd/run_state.hpp"
#include "ubus/wire.hpp"

namespace pkgd {
namespace {

using ubus::Type;

constexpr ubus::Policy package_x_set_policy[] = {
    {"Enabled", Type::Bool},
};

// What the bus shows as the arguments of "Update" and "IsLatestVersion"; callers send a nested
// "Source" table.
constexpr ubus::Policy package_x_update_list_policy[] = {
    {"Source.Protocol", Type::String},
    {"Source.Address", Type::String},
    {"Source.Port", Type::Int32},
    {"Source.Resource", Type::String},
    {"Source.Credentials.Username", Type::String},
    {"Source.Credentials.Password", Type::String},
};

// The package as its "List" entry shows it; an empty body when the package has gone meanwhile
// (removed by an event while the caller held on to the object's id).
int package_x_get(ubus::Request& req) {
    ubus::BlobBuf body;
    if (const registered_pkg* entry = the_daemon().s_pkgs.find_object(req.path()))
        __dump_pkg(body, *entry->pkg, package_get_status(*entry->pkg));
    return hlapi_send(req, HLAPI_OK, body.root());
}

// Changing, removing, updating, starting and stopping packages are not built yet: callers are
// told so plainly rather than being given an answer that nothing follows.
int not_supported(ubus::Request&) {
    return ubus::kNotSupported;
}

}  // namespace

std::shared_ptr<const ubus::ObjectType> package_x_object_type() {
    static const auto package_x_methods = ubus::ObjectType::make({
        {"Get", {}, package_x_get},
        {"get", {}, package_x_get},
        {"Set", package_x_set_policy, not_supported},
        {"set", package_x_set_policy, not_supported},
        {"Delete", {}, not_supported},
        {"del", {}, not_supported},
        {"Update", package_x_update_list_policy, not_supported},
        {"Start", {}, not_supported},
        {"Stop", {}, not_supported},
        {"IsLatestVersion", package_x_update_list_policy, not_supported},
    });
    return package_x_methods;
}

}  // namespace pkgd

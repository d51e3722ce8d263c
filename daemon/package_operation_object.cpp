#include "daemon/package_operation_object.hpp"

#include <iterator>

#include "pkgd/records.hpp"

namespace pkgd {
namespace {

using ubus::Type;

// The fields of Install, Update and Uninstall, advertised and parsed alike; each method reads the
// ones it needs.
constexpr ubus::Policy policy[] = {
    {"RequestID", Type::Int32},   {"OperateID", Type::Int32}, {"URL", Type::String},
    {"Username", Type::String},   {"Password", Type::String}, {"ExecutionEnvRef", Type::String},
    {"Version", Type::String},    {"UUID", Type::String},     {"OperateMID", Type::Int32},
    {"OperateDUID", Type::Int32}, {"Time", Type::String},
};
enum operation_field {
    OPERATION_REQUEST_ID,
    OPERATION_OPERATE_ID,
    OPERATION_URL,
    OPERATION_USERNAME,
    OPERATION_PASSWORD,
    OPERATION_EXECUTION_ENV_REF,
    OPERATION_VERSION,
    OPERATION_UUID,
    OPERATION_OPERATE_MID,
    OPERATION_OPERATE_DUID,
    OPERATION_TIME,
    OPERATION_FIELD_COUNT,
};
static_assert(OPERATION_FIELD_COUNT == std::size(policy));

constexpr ubus::Policy package_filters_policy[] = {
    {"Filters", Type::Table},
};

constexpr ubus::Policy cancel_policy[] = {
    {"RequestID", Type::Int32},
    {"OperateID", Type::Int32},
    {"OperateMID", Type::Int32},
};
enum cancel_field { CANCEL_REQUEST_ID, CANCEL_OPERATE_ID, CANCEL_OPERATE_MID, CANCEL_FIELD_COUNT };
static_assert(CANCEL_FIELD_COUNT == std::size(cancel_policy));

// The operations are not built yet: a caller learns that at once instead of an accepted request
// whose result never comes.
int opkg_install(daemon_context&, ubus::Request&) {
    return ubus::kNotSupported;
}
int opkg_update(daemon_context&, ubus::Request&) {
    return ubus::kNotSupported;
}
int opkg_uninstall(daemon_context&, ubus::Request&) {
    return ubus::kNotSupported;
}
int opkg_list(daemon_context&, ubus::Request&) {
    return ubus::kNotSupported;
}
int opkg_cancel(daemon_context&, ubus::Request&) {
    return ubus::kNotSupported;
}

}  // namespace

std::string package_operation_object_name(std::string_view ee_id) {
    FixedText<64> name(std::string("SoftwareModules.Package.").append(ee_id));
    return name.str();
}

ubus::AddResult add_opkg_object(daemon_context& d) {
    const auto opkg_methods = ubus::ObjectType::make({
        {"Install", policy, on_context(d, opkg_install)},
        {"Update", policy, on_context(d, opkg_update)},
        {"Uninstall", policy, on_context(d, opkg_uninstall)},
        {"List", package_filters_policy, on_context(d, opkg_list)},
        {"Cancel", cancel_policy, on_context(d, opkg_cancel)},
    });
    return d.ctx.add_object(d.pkg_name.view(), opkg_methods);
}

}  // namespace pkgd

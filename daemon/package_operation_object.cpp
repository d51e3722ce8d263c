#include "daemon/package_operation_object.hpp"

#include "pkgd/records.hpp"
#include "ubus/wire.hpp"

namespace pkgd {
namespace {

using ubus::Type;

// The fields of Install, Update and Uninstall; each method reads the ones it needs.
constexpr ubus::Policy policy[] = {
    {"RequestID", Type::Int32},   {"OperateID", Type::Int32}, {"URL", Type::String},
    {"Username", Type::String},   {"Password", Type::String}, {"ExecutionEnvRef", Type::String},
    {"Version", Type::String},    {"UUID", Type::String},     {"OperateMID", Type::Int32},
    {"OperateDUID", Type::Int32}, {"Time", Type::String},
};

constexpr ubus::Policy package_filters_policy[] = {
    {"Filters", Type::Table},
};

constexpr ubus::Policy cancel_policy[] = {
    {"RequestID", Type::Int32},
    {"OperateID", Type::Int32},
    {"OperateMID", Type::Int32},
};

// The operations are not built yet: a caller learns that at once instead of an accepted request
// whose result never comes.
int __opkg_install(ubus::Request&) {
    return ubus::kNotSupported;
}
int __opkg_update(ubus::Request&) {
    return ubus::kNotSupported;
}
int __opkg_uninstall(ubus::Request&) {
    return ubus::kNotSupported;
}
int __opkg_list(ubus::Request&) {
    return ubus::kNotSupported;
}
int __opkg_cancel(ubus::Request&) {
    return ubus::kNotSupported;
}

}  // namespace

std::string package_operation_object_name(std::string_view ee_id) {
    FixedText<64> name(std::string("SoftwareModules.Package.").append(ee_id));
    return name.str();
}

ubus::AddResult add_opkg_object(ubus::Connection& ctx, std::string_view name) {
    static const auto opkg_object_type = ubus::ObjectType::make({
        {"Install", policy, __opkg_install},
        {"Update", policy, __opkg_update},
        {"Uninstall", policy, __opkg_uninstall},
        {"List", package_filters_policy, __opkg_list},
        {"Cancel", cancel_policy, __opkg_cancel},
    });
    return ctx.add_object(name, opkg_object_type);
}

}  // namespace pkgd

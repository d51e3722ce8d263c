#include "daemon/packages_object.hpp"

#include "daemon/ee_object.hpp"
#include "daemon/package_list.hpp"
#include "pkgd/records.hpp"
#include "ubus/wire.hpp"

namespace pkgd {
namespace {

using ubus::Type;

// What the bus shows as the methods' arguments. Callers send nested tables ("Filters" holding
// "Id"); the flat names only describe them.
constexpr ubus::Policy package_list_list_policy[] = {
    {"Limit", Type::Int32},
    {"Offset", Type::Int32},
    {"Filters.Id", Type::String},
    {"Filters.UUID", Type::String},
    {"Filters.Name", Type::String},
    {"Filters.Enabled", Type::Bool},
    {"Filters.Vendor", Type::String},
    {"Filters.Version", Type::String},
    {"Filters.License", Type::String},
    {"Filters.Architecture", Type::String},
    {"Filters.Status", Type::String},
};

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

// Installing is not built yet: callers are told so plainly rather than being given a package that
// never arrives.
int package_install(ubus::Request&) {
    return ubus::kNotSupported;
}

}  // namespace

std::string packages_object_name(std::string_view ee_id) {
    FixedText<256> name(ee_object_name(ee_id).append(".Packages"));
    return name.str();
}

ubus::AddResult add_package_object(ubus::Connection& ctx, std::string_view name) {
    static const auto package_object_type = ubus::ObjectType::make({
        {"List", package_list_list_policy, package_list},
        {"get", package_list_list_policy, package_list},
        {"Install", package_install_list_policy, package_install},
        {"add", package_install_list_policy, package_install},
    });
    return ctx.add_object(name, package_object_type);
}

}  // namespace pkgd

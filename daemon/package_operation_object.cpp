#include "daemon/package_operation_object.hpp"

#include <algorithm>
#include <iterator>
#include <optional>
#include <string>

#include "daemon/operation_request.hpp"
#include "daemon/package_list.hpp"
#include "daemon/package_registry.hpp"
#include "daemon/source_args.hpp"
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
enum filters_field { LIST_FILTERS, LIST_FIELD_COUNT };
static_assert(LIST_FIELD_COUNT == std::size(package_filters_policy));

constexpr ubus::Policy cancel_policy[] = {
    {"RequestID", Type::Int32},
    {"OperateID", Type::Int32},
    {"OperateMID", Type::Int32},
};
enum cancel_field { CANCEL_REQUEST_ID, CANCEL_OPERATE_ID, CANCEL_OPERATE_MID, CANCEL_FIELD_COUNT };
static_assert(CANCEL_FIELD_COUNT == std::size(cancel_policy));

// The caller's identifiers, all three required by every queued request.
bool has_identifiers(const ubus::Parsed<OPERATION_FIELD_COUNT>& tb) {
    return tb[OPERATION_REQUEST_ID] && tb[OPERATION_OPERATE_ID] && tb[OPERATION_OPERATE_MID];
}

std::shared_ptr<operation_info> identified_operation(const ubus::Parsed<OPERATION_FIELD_COUNT>& tb,
                                                     std::int32_t type, std::shared_ptr<pkg_info> pkg) {
    auto op = new_operation(type, std::move(pkg));
    op->request_id = tb[OPERATION_REQUEST_ID].as_i32();
    op->operate_id = tb[OPERATION_OPERATE_ID].as_i32();
    op->operate_mid = tb[OPERATION_OPERATE_MID].as_i32();
    if (tb[OPERATION_OPERATE_DUID]) op->operate_duid = tb[OPERATION_OPERATE_DUID].as_i32();
    return op;
}

// Every accepted Install makes a new package, even for a source already installed: the caller
// learns its identifier from the object name the worker's events carry.
int opkg_install(daemon_context& d, ubus::Request& req) {
    const auto tb = ubus::parse(policy, req.args());
    if (!has_identifiers(tb) || !tb[OPERATION_URL]) return ubus::kInvalidArgument;
    pkg_info fields;
    fields.url = tb[OPERATION_URL].as_string();
    if (const auto user = optional_text(tb[OPERATION_USERNAME])) fields.username = *user;
    if (const auto password = optional_text(tb[OPERATION_PASSWORD])) fields.password = *password;
    if (const auto version = optional_text(tb[OPERATION_VERSION])) fields.version = *version;
    if (const auto uuid = optional_text(tb[OPERATION_UUID])) fields.du.uuid = *uuid;
    std::shared_ptr<pkg_info> pkg = add_pkg(d, std::to_string(free_id(d)), std::move(fields));
    if (!pkg) return ubus::kUnknownError;
    if (queue_operation(d, identified_operation(tb, OPERATION_INSTALL, pkg)) != kQueueOk) {
        // A package nothing will ever install must not stay listed as New.
        del_pkg(d, pkg->object_name);
        return ubus::kUnknownError;
    }
    return ubus::kOk;
}

int opkg_update(daemon_context& d, ubus::Request& req) {
    const auto tb = ubus::parse(policy, req.args());
    if (!has_identifiers(tb)) return ubus::kInvalidArgument;
    const std::string_view uuid = optional_text(tb[OPERATION_UUID]).value_or("");
    if (uuid.empty()) return ubus::kUnknownError;
    const auto registered =
        std::find_if(d.s_pkgs.begin(), d.s_pkgs.end(),
                     [uuid](const registered_pkg& entry) { return entry.pkg->du.uuid == uuid; });
    if (registered == d.s_pkgs.end()) return ubus::kUnknownError;

    auto copy = update_working_copy(*registered->pkg);
    if (const auto url = optional_text(tb[OPERATION_URL]); url && !url->empty()) copy->url = *url;
    if (const auto user = optional_text(tb[OPERATION_USERNAME]); user && !user->empty())
        copy->username = *user;
    if (const auto password = optional_text(tb[OPERATION_PASSWORD]); password && !password->empty())
        copy->password = *password;
    if (const auto version = optional_text(tb[OPERATION_VERSION])) copy->version = *version;
    if (queue_operation(d, identified_operation(tb, OPERATION_UPDATE, std::move(copy))) != kQueueOk)
        return ubus::kUnknownError;
    return ubus::kOk;
}

// Without a UUID or a version nothing is selected, and that is no error: there is nothing to remove.
int opkg_uninstall(daemon_context& d, ubus::Request& req) {
    const auto tb = ubus::parse(policy, req.args());
    if (!has_identifiers(tb)) return ubus::kInvalidArgument;
    const std::string_view uuid = optional_text(tb[OPERATION_UUID]).value_or("");
    const std::string_view version = optional_text(tb[OPERATION_VERSION]).value_or("");
    if (uuid.empty() && version.empty()) return ubus::kOk;
    const auto selected = std::find_if(d.s_pkgs.begin(), d.s_pkgs.end(), [&](const registered_pkg& entry) {
        return (uuid.empty() || entry.pkg->du.uuid == uuid) &&
               (version.empty() || entry.pkg->du.version == version);
    });
    if (selected == d.s_pkgs.end()) return ubus::kOk;
    if (queue_operation(d, identified_operation(tb, OPERATION_REMOVE, selected->pkg)) != kQueueOk)
        return ubus::kUnknownError;
    return ubus::kOk;
}

int opkg_list(daemon_context& d, ubus::Request& req) {
    const auto tb = ubus::parse(package_filters_policy, req.args());
    std::optional<std::string_view> uuid, version;
    if (tb[LIST_FILTERS]) {
        const auto filters = ubus::parse(package_list_filters_policy, tb[LIST_FILTERS].data());
        uuid = optional_text(filters[FILTER_UUID]);
        version = optional_text(filters[FILTER_VERSION]);
    }
    ubus::BlobBuf body;
    const auto list = body.open_array("List");
    bool any = false;
    for (const registered_pkg& entry : d.s_pkgs) {
        const pkg_info& pkg = *entry.pkg;
        if ((uuid && pkg.du.uuid != *uuid) || (version && pkg.du.version != *version)) continue;
        any = true;
        const auto item = body.open_table("");
        body.add_string("URL", pkg.url.view());
        body.add_string("UUID", pkg.du.uuid.view());
        body.add_string("Version", pkg.du.version.view());
        body.close(item);
    }
    body.close(list);
    if ((uuid || version) && !any) return ubus::kNotFound;
    // A listing too big for one message cannot be sent: the call fails rather than lying.
    if (req.reply(body) != ubus::kOk) return ubus::kUnknownError;
    return ubus::kOk;
}

int opkg_cancel(daemon_context& d, ubus::Request& req) {
    const auto tb = ubus::parse(cancel_policy, req.args());
    if (!tb[CANCEL_REQUEST_ID] || !tb[CANCEL_OPERATE_ID] || !tb[CANCEL_OPERATE_MID])
        return ubus::kInvalidArgument;
    if (!d.workers) return ubus::kNotFound;
    return pkgd::opkg_cancel(d.queue, *d.workers, tb[CANCEL_REQUEST_ID].as_i32(),
                             tb[CANCEL_OPERATE_ID].as_i32(), tb[CANCEL_OPERATE_MID].as_i32());
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

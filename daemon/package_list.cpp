#include "daemon/package_list.hpp"

#include <iterator>
#include <optional>
#include <string_view>

#include "daemon/package_table.hpp"
#include "daemon/reply_envelope.hpp"
#include "ubus/wire.hpp"

namespace pkgd {
namespace {

using ubus::Type;

// What the bus shows as the arguments. Callers send a nested "Filters" table, read with the two
// policies below; the flat names only describe it.
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

constexpr ubus::Policy package_list_policy[] = {
    {"Limit", Type::Int32},
    {"Offset", Type::Int32},
    {"Filters", Type::Table},
};
enum list_field { LIST_LIMIT, LIST_OFFSET, LIST_FILTERS, LIST_COUNT };
static_assert(LIST_COUNT == std::size(package_list_policy));

using text_filter = std::optional<std::string_view>;

text_filter text_of(ubus::Attr value) {
    if (!value) return std::nullopt;
    return value.as_string();
}

// The filters a call gave; each one present must match, byte for byte.
struct list_filters {
    // Identifiers and UUIDs take part with their first 63 characters only.
    std::optional<FixedText<64>> id;
    std::optional<FixedText<64>> uuid;
    text_filter name, vendor, version, license, architecture, status;
    std::optional<std::uint8_t> enabled;

    explicit list_filters(ubus::Attr table) {
        if (!table) return;
        const auto tb = ubus::parse(package_list_filters_policy, table.data());
        if (tb[FILTER_ID]) id.emplace(tb[FILTER_ID].as_string());
        if (tb[FILTER_UUID]) uuid.emplace(tb[FILTER_UUID].as_string());
        name = text_of(tb[FILTER_NAME]);
        vendor = text_of(tb[FILTER_VENDOR]);
        version = text_of(tb[FILTER_VERSION]);
        license = text_of(tb[FILTER_LICENSE]);
        architecture = text_of(tb[FILTER_ARCHITECTURE]);
        status = text_of(tb[FILTER_STATUS]);
        if (tb[FILTER_ENABLED]) enabled = tb[FILTER_ENABLED].as_u8();
    }

    // Everything but the status, which may need a look at the processes.
    bool match_fields(const pkg_info& pkg) const {
        const du_info& du = pkg.du;
        return (!id || *id == pkg.id) && (!uuid || *uuid == du.uuid) && matches(name, du.name) &&
               (!enabled || *enabled == du.enabled) && matches(vendor, du.vendor) &&
               (!version || *version == du.version.view()) && matches(license, du.license) &&
               matches(architecture, du.architecture);
    }

    // A package without the field never matches a filter on it.
    static bool matches(const text_filter& filter, const OptText& field) {
        return !filter || (field && *filter == *field);
    }
};

}  // namespace

std::int32_t package_list_body(ubus::BlobBuf& body, const package_registry& pkgs, ubus::Bytes args,
                               ProcessSnapshot& processes) {
    const auto tb = ubus::parse(package_list_policy, args);
    const std::int32_t limit = tb[LIST_LIMIT].as_i32();
    const std::int32_t offset = tb[LIST_OFFSET].as_i32();
    if (limit < 0 || offset < 0 || (limit > 0 && offset > 0 && limit < offset))
        return HLAPI_OPERATION_ILLEGAL;
    const list_filters filters(tb[LIST_FILTERS]);

    const auto list = body.open_array("List");
    std::int32_t position = 0;
    for (const registered_pkg& entry : pkgs) {
        ++position;
        if (limit > 0 && position > limit) break;
        if (position < offset || !filters.match_fields(*entry.pkg)) continue;
        const std::string_view status = package_get_status(*entry.pkg, processes);
        if (filters.status && *filters.status != status) continue;
        const auto table = body.open_table({});
        dump_pkg(body, *entry.pkg, status);
        body.close(table);
    }
    body.close(list);
    body.add_i32("Limit", limit);
    body.add_i32("Offset", offset);
    return HLAPI_OK;
}

int package_list(daemon_context& d, ubus::Request& req) {
    ubus::BlobBuf body;
    ProcessSnapshot processes(d.sys);
    const std::int32_t result = package_list_body(body, d.s_pkgs, req.args(), processes);
    return hlapi_send(req, result, result == HLAPI_OK ? body.root() : ubus::Attr());
}

ubus::MethodDef package_list_method(std::string_view name, daemon_context& d) {
    return {name, package_list_list_policy, on_context(d, package_list)};
}

}  // namespace pkgd

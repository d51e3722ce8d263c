// "List"/"get" of the Packages object: the registered packages, filtered and paged.
//
// Paging: positions count every registered package from 1, newest first, before filtering. A
// package is in the page when Offset is 0 or its position is at least Offset, and Limit is 0 or
// its position is at most Limit: Offset names the first position and Limit the last, both
// inclusive. A negative Limit or Offset, or a positive Limit below a positive Offset, is refused.
#pragma once

#include <cstdint>
#include <iterator>

#include "daemon/daemon_context.hpp"
#include "daemon/package_registry.hpp"
#include "pkgd/run_state.hpp"
#include "ubus/blob.hpp"
#include "ubus/client.hpp"

namespace pkgd {

// The fields of "Filters", shared with the package-operation object's "List".
inline constexpr ubus::Policy package_list_filters_policy[] = {
    {"Id", ubus::Type::String},      {"UUID", ubus::Type::String},         {"Name", ubus::Type::String},
    {"Enabled", ubus::Type::Bool},   {"Vendor", ubus::Type::String},       {"Version", ubus::Type::String},
    {"License", ubus::Type::String}, {"Architecture", ubus::Type::String}, {"Status", ubus::Type::String},
};
enum filter_field {
    FILTER_ID,
    FILTER_UUID,
    FILTER_NAME,
    FILTER_ENABLED,
    FILTER_VENDOR,
    FILTER_VERSION,
    FILTER_LICENSE,
    FILTER_ARCHITECTURE,
    FILTER_STATUS,
    FILTER_COUNT,
};
static_assert(FILTER_COUNT == std::size(package_list_filters_policy));

// Fills `body` with "List" (one package table per selected package, in registry order), "Limit"
// and "Offset" for the call arguments `args`, and returns HLAPI_OK; or returns
// HLAPI_OPERATION_ILLEGAL, `body` untouched, when the page range is refused. Running processes
// are looked up in `processes` only when an installed package's status is needed.
std::int32_t package_list_body(ubus::BlobBuf& body, const package_registry& pkgs, ubus::Bytes args,
                               ProcessSnapshot& processes);

// The bus handler: the listing of the daemon's registry, in the reply envelope.
int package_list(daemon_context& d, ubus::Request& req);

// The method `name` ("List" or "get") with its advertised arguments, answered from `d`.
ubus::MethodDef package_list_method(std::string_view name, daemon_context& d);

}  // namespace pkgd

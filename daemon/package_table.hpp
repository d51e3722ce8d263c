// The package table: how a package reads in the Packages object's listing and in its own object's
// "Get".
#pragma once

#include <cstdint>
#include <string_view>

#include "pkgd/records.hpp"
#include "ubus/blob.hpp"

namespace pkgd {

// A source URL cut into the parts the "Source" table shows.
struct source_parts {
    FixedText<64> protocol;  // upper case
    std::string_view address;
    std::int32_t port = 0;
    std::string_view resource;  // from its "/" on
};

// The scheme is what precedes the first ':', the two characters after that ':' are taken for
// "//", and the rest is address, optional ":" port, then the resource from its "/". A URL without
// ':' has no parts at all; one with a port but no resource has neither port nor resource.
source_parts split_source(std::string_view url);

// Adds the package's fields to the container open in `body`, in this order: "Id", "UUID",
// "Name", "Description", "Enabled", "Source" (table), "Section", "Vendor", "Version",
// "Dependencies" (array of strings), "License", "Architecture", "Status" (`status`, the text of
// package_get_status), "Install" (table "Timestamp", "Size"). Absent texts read "".
void dump_pkg(ubus::BlobBuf& body, const pkg_info& pkg, std::string_view status);

}  // namespace pkgd

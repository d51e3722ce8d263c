// The execution-environment object: the identity of the environment this daemon serves, with the
// gateway's memory and storage figures read anew on every call.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "daemon/daemon_context.hpp"
#include "pkgd/identity.hpp"
#include "ubus/blob.hpp"
#include "ubus/client.hpp"

namespace pkgd {

// "Services.Management.LCM.ExecutionEnvironments.<ee_id>", cut to 255 characters.
std::string ee_object_name(std::string_view ee_id);

// Registers the object at d.s_ee_object on d.ctx, method "Get" (no arguments).
ubus::AddResult add_ee_object(daemon_context& d);

// "Get": d.ee with the memory and storage figures of d.sys, read anew on every call.
int ee_get(daemon_context& d, ubus::Request& req);

// One pair of figures, in kilobytes; 0 and 0 when they could not be read.
struct resource_figures {
    std::int32_t total = 0;
    std::int32_t free = 0;
};

// The used share of a pair, (total - free) / total, between 0 and 1 for sane figures. 0 when
// total is 0 (figures unreadable), so that the reply stays a finite number every client can read.
double resource_usage(resource_figures figures);

// The body of "Get": "Id", "Name", "Enabled", "Version", "Vendor", "Type", "Resources" (tables
// "Memory" and "Storage" with "Total", "Free", "Usage"), "Status".
void ee_get_body(ubus::BlobBuf& body, const ee_identity& ee, resource_figures memory,
                 resource_figures storage);

}  // namespace pkgd

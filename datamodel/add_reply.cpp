// Reading the data-model agent's answer to "add": which instance it created.
#include <charconv>

#include "pkgd/datamodel.hpp"

namespace pkgd {
namespace {

bool is_instance_table(const ubus::Attr& a) {
    if (a.type() != ubus::Type::Table) return false;
    const std::string_view name = a.name();
    // The agent may name the table after any of the three objects, not only the one asked for.
    return name == kDeploymentUnitPath || name == kExecutionUnitPath || name == kExecEnvPath;
}

// Instance numbers are positive; a name that is not a plain decimal number names none.
std::int32_t instance_number(std::string_view name) {
    std::int32_t n = 0;
    const auto [end, ec] = std::from_chars(name.data(), name.data() + name.size(), n);
    if (ec != std::errc{} || end != name.data() + name.size() || n <= 0) return 0;
    return n;
}

}  // namespace

void _req_cwmp_add_node_cb(ubus::Bytes reply, std::int32_t& result) {
    for (const ubus::Attr table : ubus::AttrList(reply)) {
        if (!is_instance_table(table)) continue;
        for (const ubus::Attr member : table.children()) {
            if (member.type() == ubus::Type::Bool && member.as_u8() == 1) {
                result = instance_number(member.name());
                return;
            }
        }
    }
}

}  // namespace pkgd

// Reading the data-model agent's answer to "add": which instance it created.
#include "pkgd/datamodel.hpp"
#include "pkgd/text.hpp"

namespace pkgd {
namespace {

bool is_instance_table(const ubus::Attr& a) {
    if (a.type() != ubus::Type::Table) return false;
    const std::string_view name = a.name();
    // The agent may name the table after any of the three objects, not only the one asked for.
    return name == kDeploymentUnitPath || name == kExecutionUnitPath || name == kExecEnvPath;
}

// The name is read the way atoi reads it ("12x" is 12). Instance numbers are positive, so a name
// that reads as zero or less names none: a negative number must never become a record's index.
std::int32_t instance_number(std::string_view name) {
    const std::int32_t n = leading_decimal(name);
    return n > 0 ? n : 0;
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

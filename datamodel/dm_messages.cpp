// The requests to the data-model agent, built from the records.
#include <string>

#include "pkgd/datamodel.hpp"

namespace pkgd {

void dm_add_message(ubus::BlobBuf& msg, std::int32_t pid, std::string_view object_path) {
    msg.add_i32("pid", pid);
    msg.close(msg.open_table(object_path));
}

bool dm_del_message(ubus::BlobBuf& msg, std::int32_t pid, int kind, const pkg_info& pkg) {
    std::string_view path;
    switch (kind) {
        case DM_INSTANCE_DU:
            if (pkg.du.index == 0) return false;
            path = kDeploymentUnitPath;
            break;
        case DM_INSTANCE_EE:
            if (!pkg.ee || pkg.ee->index == 0) return false;
            path = kExecEnvPath;
            break;
        case DM_INSTANCE_EU:
            // A first unit without an instance means the units never got any.
            if (pkg.eu.empty() || pkg.eu.front().index == 0) return false;
            path = kExecutionUnitPath;
            break;
        default:
            return false;
    }

    msg.add_i32("pid", pid);
    const auto array = msg.open_array(path);
    switch (kind) {
        case DM_INSTANCE_DU:
            msg.add_string("", std::to_string(pkg.du.index));
            break;
        case DM_INSTANCE_EE:
            msg.add_string("", std::to_string(pkg.ee->index));
            break;
        default:
            for (const eu_info& eu : pkg.eu) {
                if (eu.index > 0) msg.add_string("", std::to_string(eu.index));
            }
            break;
    }
    msg.close(array);
    return true;
}

void dm_set_message(ubus::BlobBuf& msg, std::int32_t eu_index, std::string_view value) {
    std::string param(kExecutionUnitPath);
    param += std::to_string(eu_index);
    param += ".AutoStart";
    const auto object = msg.open_table("object");
    msg.add_string(param, value);
    msg.close(object);
}

}  // namespace pkgd

// The one event that tells the management side how an install, update or uninstall ended.
#include <string>

#include "pkgd/datamodel.hpp"
#include "pkgd/peer_call.hpp"
#include "pkgd/time_stamp.hpp"

namespace pkgd {
namespace {

struct OperationWords {
    std::string_view performed;
    std::string_view status_on_success;
    std::string_view status_on_failure;
};

// A failed update or uninstall leaves the previous installation in place.
std::optional<OperationWords> operation_words(std::int32_t type) {
    switch (type) {
        case OPERATION_INSTALL:
            return OperationWords{"Install", "Installed", "Failed"};
        case OPERATION_UPDATE:
            return OperationWords{"Update", "Installed", "Installed"};
        case OPERATION_REMOVE:
            return OperationWords{"Uninstall", "Uninstalled", "Installed"};
        default:
            return std::nullopt;
    }
}

// The data-model path of one instance: "<object path><number>.".
std::string instance_ref(std::string_view object_path, std::int32_t index) {
    std::string ref(object_path);
    ref += std::to_string(index);
    ref += '.';
    return ref;
}

// The references of all units, in list order, joined with ","; cut to the list's bound.
std::string unit_ref_list(const std::vector<eu_info>& units) {
    std::string list;
    for (const eu_info& eu : units) {
        if (!list.empty()) list += ',';
        list += instance_ref(kExecutionUnitPath, eu.index);
        if (list.size() >= kUnitRefListMax) break;
    }
    if (list.size() > kUnitRefListMax) list.resize(kUnitRefListMax);
    return list;
}

}  // namespace

bool operation_result_message(ubus::BlobBuf& msg, const operation_info& op, std::int32_t fault_code,
                              std::optional<std::string_view> fault_text, std::string_view complete_time) {
    const auto words = operation_words(op.type);
    if (!op.pkg || !words) return false;
    const pkg_info& pkg = *op.pkg;
    const bool success = fault_code == 0;

    msg.add_i32("RequestID", op.request_id);
    msg.add_i32("OperateID", op.operate_id);
    msg.add_i32("OperateMID", op.operate_mid);
    msg.add_string("UUID", pkg.du.uuid);
    if (success) {
        msg.add_string("Version", pkg.du.version);
        msg.add_string("DeploymentUnitRef", instance_ref(kDeploymentUnitPath, pkg.du.index));
        msg.add_bool("Resolved", pkg.du.resolved != 0);
        if (!pkg.eu.empty()) msg.add_string("ExecutionUnitRefList", unit_ref_list(pkg.eu));
    }
    msg.add_string("CurrentStatus", success ? words->status_on_success : words->status_on_failure);
    msg.add_i32("FaultCode", fault_code);
    if (fault_text) msg.add_string("Fault", *fault_text);
    msg.add_string("OperationPerformed", words->performed);
    msg.add_string("StartTime", op.time);
    msg.add_string("CompleteTime", complete_time);
    return true;
}

void package_response2lcm(const operation_info& op, std::int32_t fault_code,
                          std::optional<std::string_view> fault_text) {
    ubus::BlobBuf msg;
    if (!operation_result_message(msg, op, fault_code, fault_text, package_format_time())) return;
    broadcast_event(kOperationResultEvent, msg.members());
}

}  // namespace pkgd

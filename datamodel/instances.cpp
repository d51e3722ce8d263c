// Creating, deleting and configuring instances through the CWMP agent's "v1.DataModel".
#include <unistd.h>

#include "pkgd/datamodel.hpp"
#include "pkgd/peer_call.hpp"

namespace pkgd {
namespace {

// One short-lived connection to the agent: a worker never uses the daemon's connection.
class DataModelSession {
public:
    bool open() { return peer_.open(kDataModelObject) == ubus::kOk; }

    // The outcome is not looked at: a refused or unanswered request leaves the caller's result
    // as it was.
    void request(std::string_view method, const ubus::BlobBuf& msg, ubus::DataCallback on_data = nullptr) {
        peer_.call(method, msg.members(), on_data);
    }

    // Every change is followed by a commit so the agent makes it visible.
    void commit() { request("commit", ubus::BlobBuf{}); }

private:
    PeerSession peer_{kDataModelTimeoutMs};
};

std::int32_t package_xml_create_instance(std::string_view object_path) {
    if (object_path.empty()) return 0;
    DataModelSession dm;
    if (!dm.open()) return 0;
    ubus::BlobBuf msg;
    dm_add_message(msg, static_cast<std::int32_t>(::getpid()), object_path);
    std::int32_t result = 0;
    dm.request("add", msg, [&result](ubus::Bytes reply) { _req_cwmp_add_node_cb(reply, result); });
    dm.commit();
    return result;
}

}  // namespace

std::int32_t package_xml_create_du_instance() {
    return package_xml_create_instance(kDeploymentUnitPath);
}
std::int32_t package_xml_create_eu_instance() {
    return package_xml_create_instance(kExecutionUnitPath);
}
std::int32_t package_xml_create_ee_instance() {
    return package_xml_create_instance(kExecEnvPath);
}

void package_xml_del_instance(int kind, const operation_info& op) {
    if (!op.pkg) return;
    ubus::BlobBuf msg;
    if (!dm_del_message(msg, static_cast<std::int32_t>(::getpid()), kind, *op.pkg)) return;
    DataModelSession dm;
    if (!dm.open()) return;
    dm.request("del", msg);
    dm.commit();
}

void package_xml_set_eu_autostart(std::int32_t eu_index, std::string_view value) {
    ubus::BlobBuf msg;
    dm_set_message(msg, eu_index, value);
    DataModelSession dm;
    if (!dm.open()) return;
    dm.request("set", msg);
    dm.commit();
}

}  // namespace pkgd

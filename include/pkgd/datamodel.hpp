// The data-model bridge: TR-098 SoftwareModules instances kept by the gateway's CWMP agent for every
// deployment unit, execution unit and execution environment pkgd installs, and the one event that
// tells the management side how an operation ended.
//
// Everything here is called from a worker process. Each call opens a bus connection of its own on
// the default socket, makes its requests synchronously and closes it again; failures are silent
// (an instance number of 0, or nothing sent).
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "pkgd/records.hpp"
#include "ubus/blob.hpp"

namespace pkgd {

// ---------------------------------------------------------------------------------------------
// Data-model instances

inline constexpr std::string_view kDataModelObject = "v1.DataModel";
inline constexpr std::string_view kDeploymentUnitPath =
    "InternetGatewayDevice.SoftwareModules.DeploymentUnit.";
inline constexpr std::string_view kExecutionUnitPath = "InternetGatewayDevice.SoftwareModules.ExecutionUnit.";
inline constexpr std::string_view kExecEnvPath = "InternetGatewayDevice.SoftwareModules.ExecEnv.";
inline constexpr int kDataModelTimeoutMs = 1000;

// What package_xml_del_instance deletes.
enum DataModelInstanceKind : int {
    DM_INSTANCE_DU = 0,  // the deployment unit
    DM_INSTANCE_EE = 1,  // the execution environment
    DM_INSTANCE_EU = 2,  // every execution unit
};

// Each creates one instance of its object and returns its number, or 0 when none was created
// (no bus, no agent, no answer in time, or an answer without a new instance). "commit" follows
// the "add" whatever its outcome.
std::int32_t package_xml_create_du_instance();
std::int32_t package_xml_create_eu_instance();
std::int32_t package_xml_create_ee_instance();

// Deletes the instances of one kind of the operation's package, then commits. Nothing is sent
// (not even "commit") when the package has no instance of that kind or the kind is unknown.
void package_xml_del_instance(int kind, const operation_info& op);

// Sets the AutoStart parameter of execution unit `eu_index` to `value`, then commits.
void package_xml_set_eu_autostart(std::int32_t eu_index, std::string_view value);

// The messages, built into `msg` (an empty buffer):
// "add": "pid", then an empty table named with the object path.
void dm_add_message(ubus::BlobBuf& msg, std::int32_t pid, std::string_view object_path);
// "del": "pid", then an array named with the kind's object path holding each instance number as
// a decimal string. False, with nothing built, when there is nothing to delete.
bool dm_del_message(ubus::BlobBuf& msg, std::int32_t pid, int kind, const pkg_info& pkg);
// "set": a table "object" with the unit's AutoStart parameter path as key and `value`.
void dm_set_message(ubus::BlobBuf& msg, std::int32_t eu_index, std::string_view value);

// Reads one DATA reply of "add" (its members). The first BOOL member that is true inside a
// table named with any of the three object paths names the new instance: `result` becomes that
// name read as a decimal number, or 0 when it is not a whole positive 32-bit number. A reply
// without such a member leaves `result` as it was.
void _req_cwmp_add_node_cb(ubus::Bytes reply, std::int32_t& result);

// ---------------------------------------------------------------------------------------------
// Operation results

inline constexpr std::string_view kOperationResultEvent = "SOFTWAREMODULES.PACKAGE.OPERATIONSRESULT";
// "ExecutionUnitRefList" is cut to this many characters.
inline constexpr std::size_t kUnitRefListMax = 4095;

// The CWMP (TR-069) faults an operation ends with.
struct cwmp_fault {
    std::int32_t code;
    std::string_view text;
};
inline constexpr cwmp_fault kFaultNone{0, ""};
inline constexpr cwmp_fault kFaultRequestDenied{9001, "Request denied"};
inline constexpr cwmp_fault kFaultInternalError{9002, "Internal error"};
inline constexpr cwmp_fault kFaultInvalidArguments{9003, "Invalid arguments"};
inline constexpr cwmp_fault kFaultDownloadFailed{9017, "Unable to complete download"};
inline constexpr cwmp_fault kFaultFileCorrupted{9018, "File corrupted or otherwise unusable"};
inline constexpr cwmp_fault kFaultAlreadyInstalled{
    9026, "Deployment Unit had already installed on the same Execution Environment"};
inline constexpr cwmp_fault kFaultNoResources{9027, "No more system resource"};

// Broadcasts the operation's result event. `fault_code` 0 is success; "Fault" is sent only when
// `fault_text` is given. Nothing is sent without a package or a bus.
void package_response2lcm(const operation_info& op, std::int32_t fault_code,
                          std::optional<std::string_view> fault_text);
inline void package_response2lcm(const operation_info& op, const cwmp_fault& fault) {
    package_response2lcm(op, fault.code, fault.text);
}

// The event's members, completed at `complete_time`. False, with nothing built, when the
// operation has no package or is of no known type.
bool operation_result_message(ubus::BlobBuf& msg, const operation_info& op, std::int32_t fault_code,
                              std::optional<std::string_view> fault_text, std::string_view complete_time);

}  // namespace pkgd

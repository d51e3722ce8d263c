// LCM events: what pkgd broadcasts on the bus at every step of an operation and for every start
// or stop. The daemon listens to the same events to follow its workers, so codes and names are
// shared by both sides.
#pragma once

#include <cstdint>
#include <string_view>

#include "ubus/blob.hpp"

namespace pkgd {

inline constexpr std::string_view kLcmEventType = "Services.Management.LCM";

// Body member names.
inline constexpr std::string_view kLcmPackageIdKey = "PackageId";  // the per-package object's name
// "Services.Management.LCM.ExecutionEnvironments." followed by the environment's name.
inline constexpr std::string_view kLcmExecEnvIdKey = "ExecutionEnvironmentId";

struct lcm_event {
    std::int32_t code;
    std::string_view name;
};

inline constexpr lcm_event kLcmExecEnvAdded{1, "SERVICES_MANAGEMENT_LCM_EXECUTION_ENVIRONMENT_ADDED"};
inline constexpr lcm_event kLcmExecEnvDeleted{5, "SERVICES_MANAGEMENT_LCM_EXECUTION_ENVIRONMENT_DELETED"};
inline constexpr lcm_event kLcmDownloadComplete{6, "SERVICES_MANAGEMENT_LCM_PACKAGE_DOWNLOAD_COMPLETE"};
inline constexpr lcm_event kLcmDownloadFailed{7, "SERVICES_MANAGEMENT_LCM_PACKAGE_DOWNLOAD_FAILED"};
inline constexpr lcm_event kLcmInstallComplete{8, "SERVICES_MANAGEMENT_LCM_PACKAGE_INSTALL_COMPLETE"};
inline constexpr lcm_event kLcmInstallFailed{9, "SERVICES_MANAGEMENT_LCM_PACKAGE_INSTALL_FAILED"};
inline constexpr lcm_event kLcmPackageEnabled{10, "SERVICES_MANAGEMENT_LCM_PACKAGE_ENABLED"};
inline constexpr lcm_event kLcmPackageDisabled{11, "SERVICES_MANAGEMENT_LCM_PACKAGE_DISABLED"};
inline constexpr lcm_event kLcmDeleteComplete{13, "SERVICES_MANAGEMENT_LCM_PACKAGE_DELETE_COMPLETE"};
inline constexpr lcm_event kLcmDeleteFailed{14, "SERVICES_MANAGEMENT_LCM_PACKAGE_DELETE_FAILED"};
inline constexpr lcm_event kLcmDownloading{20, "SERVICES_MANAGEMENT_LCM_PACKAGE_DOWNLOADING"};
inline constexpr lcm_event kLcmInstalling{21, "SERVICES_MANAGEMENT_LCM_PACKAGE_INSTALLING"};
inline constexpr lcm_event kLcmDeleting{22, "SERVICES_MANAGEMENT_LCM_PACKAGE_DELETING"};
inline constexpr lcm_event kLcmUpdating{23, "SERVICES_MANAGEMENT_LCM_PACKAGE_UPDATING"};
inline constexpr lcm_event kLcmUpdateFailed{24, "SERVICES_MANAGEMENT_LCM_PACKAGE_UPDATE_FAILED"};
inline constexpr lcm_event kLcmUpdateComplete{25, "SERVICES_MANAGEMENT_LCM_PACKAGE_UPDATE_COMPLETE"};

// Broadcasts one event over a bus connection of its own: table "Header" with "Code" and "Name",
// then, when `body_key` is not empty, table "Body" with the one string member body_key =
// body_value. Silent when there is no bus.
void package_event(std::int32_t code, std::string_view name, std::string_view body_key,
                   std::string_view body_value);
inline void package_event(const lcm_event& event, std::string_view body_key, std::string_view body_value) {
    package_event(event.code, event.name, body_key, body_value);
}

// The event's members, built into `msg` (an empty buffer).
void lcm_event_message(ubus::BlobBuf& msg, std::int32_t code, std::string_view name,
                       std::string_view body_key, std::string_view body_value);

}  // namespace pkgd

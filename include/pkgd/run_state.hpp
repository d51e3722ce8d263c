// Run state and start/stop of packages. A package runs when one of its installed files is the
// executable of a live process; starting and stopping is asked of the environment's service
// manager, which runs the package's init scripts.
#pragma once

#include <sys/types.h>

#include <compare>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "pkgd/records.hpp"
#include "pkgd/system_env.hpp"
#include "ubus/blob.hpp"

namespace pkgd {

// ---------------------------------------------------------------------------------------------
// Run state

// 0 when one of the package's files (du.files) is the executable of a live process, -1
// otherwise (also without a file list). Looks at the processes at most once per call.
int package_ispkgactive(const pkg_info& pkg, SystemEnv& sys);
int package_ispkgactive(const pkg_info& pkg);  // on the real system

// The status text; for an installed package "Running" or "Installed" by package_ispkgactive,
// which only then looks at the processes.
std::string_view package_get_status(const pkg_info& pkg);

// The identity of the file `path` leads to, following symbolic links; nothing when it cannot be
// examined (gone, no permission).
std::optional<file_id> file_identity(const char* path);

// The identities of the paths of a file list ("path;path;..."), in order; paths that cannot be
// examined are left out.
std::vector<file_id> file_list_identities(std::string_view files);
std::vector<file_id> file_list_identities(std::string_view files, SystemEnv& sys);

// The executables of the live processes listed in `proc_dir` (entries beginning with a decimal
// number; their "exe" links), in no particular order. Processes whose executable cannot be
// examined (gone meanwhile, kernel threads) are left out.
std::vector<file_id> running_executables(const std::string& proc_dir = "/proc");

// Whether any of `files` is one of `executables`.
bool any_file_running(std::vector<file_id> files, std::span<const file_id> executables);

// One look at the processes shared by many status queries, as a listing of every package needs:
// the executables are collected when the first package with existing files asks, and every later
// question is answered from that collection.
class ProcessSnapshot {
public:
    explicit ProcessSnapshot(SystemEnv& sys) : sys_(sys) {}

    // Whether one of the paths of the file list `files` ("path;path;...") is a live executable.
    bool runs_any(std::string_view files);

private:
    SystemEnv& sys_;
    std::optional<std::vector<file_id>> executables_;
};

// package_get_status answered from `processes`.
std::string_view package_get_status(const pkg_info& pkg, ProcessSnapshot& processes);

// ---------------------------------------------------------------------------------------------
// Start and stop

inline constexpr int kServiceManagerTimeoutMs = 2000;

// Ask the environment's service manager to start or stop the package's units. 0 on success, -1
// when there is no bus, no service manager, or it refused or did not answer within
// kServiceManagerTimeoutMs. On success LCM event 10 (start) or 11 (stop) follows, with the
// package's object name as "PackageId".
int package_start(const pkg_info& pkg);
int package_stop(const pkg_info& pkg);

// "Services.Management.LCM.ExecutionEnvironments.<ee_name>.Services", cut to 255 characters.
std::string service_manager_object(std::string_view ee_name);

// The "operate" request: "Operation" = `action`; for an ordinary package array "name" with the
// name of each execution unit in list order (empty when it has none; units without a name are
// left out); for an environment package array "name" with its environment's init script, or no
// "name" at all when it has no environment.
void operate_message(ubus::BlobBuf& msg, const pkg_info& pkg, std::string_view action);

}  // namespace pkgd

#include "pkgd/run_state.hpp"

namespace pkgd {

// The package's files are examined first: a package whose files are all gone needs no look at
// the processes, and /proc is read at most once whatever the number of files.
bool ProcessSnapshot::runs_any(std::string_view files) {
    std::vector<file_id> ids = file_list_identities(files, sys_);
    if (ids.empty()) return false;
    if (!executables_) executables_ = sys_.running_executables();
    return any_file_running(std::move(ids), *executables_);
}

int package_ispkgactive(const pkg_info& pkg, SystemEnv& sys) {
    ProcessSnapshot processes(sys);
    return pkg.du.files && processes.runs_any(*pkg.du.files) ? 0 : -1;
}

int package_ispkgactive(const pkg_info& pkg) {
    return package_ispkgactive(pkg, real_system_env());
}

std::string_view package_get_status(const pkg_info& pkg, ProcessSnapshot& processes) {
    if (pkg.status != PKG_STATUS_INSTALLED) return package_status_text(pkg.status);
    return pkg.du.files && processes.runs_any(*pkg.du.files) ? "Running" : "Installed";
}

std::string_view package_get_status(const pkg_info& pkg) {
    ProcessSnapshot processes(real_system_env());
    return package_get_status(pkg, processes);
}

}  // namespace pkgd

#include "pkgd/run_state.hpp"

namespace pkgd {

// The package's files are examined first: a package whose files are all gone needs no look at
// the processes, and /proc is read once whatever the number of files.
int package_ispkgactive(const pkg_info& pkg) {
    if (!pkg.du.files) return -1;
    std::vector<file_id> files = file_list_identities(*pkg.du.files);
    if (files.empty()) return -1;
    return any_file_running(std::move(files), running_executables()) ? 0 : -1;
}

std::string_view package_get_status(const pkg_info& pkg) {
    if (pkg.status == PKG_STATUS_INSTALLED) return package_ispkgactive(pkg) == 0 ? "Running" : "Installed";
    return package_status_text(pkg.status);
}

}  // namespace pkgd

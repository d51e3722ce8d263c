#include "pkgd/records.hpp"

namespace pkgd {

void package_data_free_du_info(du_info& du) {
    for (OptText* t : {&du.files, &du.name, &du.dependency, &du.vendor, &du.description, &du.provides,
                       &du.section, &du.license, &du.licensefiles, &du.architecture}) {
        t->reset();
    }
}

void package_data_free_eu_info(pkg_info& pkg) { pkg.eu.clear(); }

void package_data_free_ee_info(pkg_info& pkg) { pkg.ee.reset(); }

std::string_view package_status_text(std::int32_t status) {
    switch (status) {
    case PKG_STATUS_DOWNLOADING: return "Downloading";
    case PKG_STATUS_DOWNLOADED: return "Downloaded";
    case PKG_STATUS_INSTALLING: return "Installing";
    case PKG_STATUS_INSTALLED: return "Installed";
    case PKG_STATUS_UPDATING: return "Updating";
    case PKG_STATUS_UNINSTALLING: return "Uninstalling";
    default: return "New";
    }
}

}  // namespace pkgd

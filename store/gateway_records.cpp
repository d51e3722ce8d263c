// The gateway's record files: under /usr/local/package, written with the environment's name and
// mirrored in the LCM catalog.
#include <string>

#include "pkgd/identity.hpp"
#include "pkgd/record_files.hpp"

namespace pkgd {

RecordFiles RecordFiles::gateway() {
    return RecordFiles(std::string(kPackageDir), std::string(package_get_ee_name()), true);
}

void package_store_pkg_info(const pkg_info& pkg) {
    RecordFiles::gateway().store_pkg(pkg);
}
void package_store_du_info(const pkg_info& pkg) {
    RecordFiles::gateway().store_du(pkg);
}
void package_store_eu_info(const pkg_info& pkg) {
    RecordFiles::gateway().store_eu(pkg);
}
void package_store_ee_info(const pkg_info& pkg) {
    RecordFiles::gateway().store_ee(pkg);
}
int package_delete_pkg_info(const pkg_info& pkg) {
    return RecordFiles::gateway().delete_pkg(pkg);
}
void package_delete_du_info(const pkg_info& pkg) {
    RecordFiles::gateway().delete_du(pkg);
}
void package_delete_eu_info(const pkg_info& pkg) {
    RecordFiles::gateway().delete_eu(pkg);
}
void package_delete_ee_info(const pkg_info& pkg) {
    RecordFiles::gateway().delete_ee(pkg);
}
void package_get_pkg_info(pkg_info& pkg) {
    RecordFiles::gateway().load_pkg(pkg);
}
void package_reload_pkg_info(pkg_info& pkg) {
    RecordFiles::gateway().reload_pkg(pkg);
}
int package_get_du_info(pkg_info& pkg, std::int32_t index) {
    return RecordFiles::gateway().load_du(pkg, index);
}
void package_get_eu_info(pkg_info& pkg, std::int32_t index) {
    RecordFiles::gateway().load_eu(pkg, index);
}
void package_get_ee_info(pkg_info& pkg, std::int32_t index) {
    RecordFiles::gateway().load_ee(pkg, index);
}

}  // namespace pkgd

// Record files on disk: where they live, writing them (with the catalog kept in step) and
// reading them back.
#include "pkgd/record_files.hpp"

#include <unistd.h>

#include <filesystem>
#include <utility>

#include "durable_file.hpp"
#include "pkgd/catalog.hpp"
#include "ubus/json.hpp"

namespace pkgd {
namespace {

// The package file holds the source's password: only its owner may read it, from its first
// write on.
constexpr mode_t kSecretRecordMode = 0600;
constexpr mode_t kRecordDirMode = 0755;

bool write_record(FileIo& io, const std::string& path, const ubus::BlobBuf& msg, mode_t mode = 0666) {
    return !path.empty() && replace_file(io, path, ubus::json_format(msg), mode);
}

// The file's members, or nothing when it is missing or not a JSON object.
bool load_record(ubus::BlobBuf& msg, const std::string& path) {
    return !path.empty() && ubus::json_load_file(msg, path);
}

}  // namespace

RecordFiles::RecordFiles(std::string base_dir, std::string ee_name, bool mirror_catalog, FileIo& io)
    : base_(std::move(base_dir)), ee_name_(std::move(ee_name)), mirror_catalog_(mirror_catalog), io_(&io) {}

void RecordFiles::make_directories() const {
    make_directory(*io_, pkg_dir(), kRecordDirMode);
    make_directory(*io_, base_ + "/ee", kRecordDirMode);
}

void RecordFiles::remove_stale_temporaries() const {
    for (const char* kind : {"/pkg", "/du", "/eu", "/ee"}) pkgd::remove_stale_temporaries(*io_, base_ + kind);
}

std::string RecordFiles::pkg_path(std::string_view id) const {
    if (id.empty() || id.front() == '.' || id.find('/') != std::string_view::npos ||
        id.find('\0') != std::string_view::npos)
        return {};
    std::string path;
    path.reserve(base_.size() + 5 + id.size());
    return path.append(base_).append("/pkg/").append(id);
}

std::string RecordFiles::index_path(std::string_view dir, std::int32_t index) const {
    std::string path;
    path.reserve(base_.size() + dir.size() + 11);
    return path.append(base_).append(dir).append(std::to_string(index));
}

void RecordFiles::store_unit(const std::string& path, int kind, std::int32_t index,
                             const ubus::BlobBuf& msg) const {
    write_record(*io_, path, msg);
    if (mirror_catalog_) update_lcmd_catalog(kind, index, msg.members());
}

void RecordFiles::delete_unit(const std::string& path, int kind, std::int32_t index) const {
    remove_file(*io_, path);
    if (mirror_catalog_) delete_lcmd_catalog(kind, index);
}

void RecordFiles::store_pkg(const pkg_info& pkg) const {
    ubus::BlobBuf msg;
    pkg_record_message(msg, pkg);
    write_record(*io_, pkg_path(pkg.id), msg, kSecretRecordMode);
}

void RecordFiles::store_du(const pkg_info& pkg) const {
    ubus::BlobBuf msg;
    du_record_message(msg, pkg, ee_name_);
    store_unit(du_path(pkg.du.index), CATALOG_DU, pkg.du.index, msg);
}

void RecordFiles::store_eu(const pkg_info& pkg) const {
    ubus::BlobBuf msg;
    for (const eu_info& eu : pkg.eu) {
        msg.reset();
        eu_record_message(msg, pkg, eu, ee_name_);
        store_unit(eu_path(eu.index), CATALOG_EU, eu.index, msg);
    }
}

void RecordFiles::store_ee(const pkg_info& pkg) const {
    if (!pkg.ee) return;
    ubus::BlobBuf msg;
    ee_record_message(msg, pkg, *pkg.ee, ee_name_);
    store_unit(ee_path(pkg.ee->index), CATALOG_EE, pkg.ee->index, msg);
}

int RecordFiles::delete_pkg(const pkg_info& pkg) const {
    const std::string path = pkg_path(pkg.id);
    return !path.empty() && remove_file(*io_, path) ? 0 : -1;
}

void RecordFiles::delete_du(const pkg_info& pkg) const {
    delete_unit(du_path(pkg.du.index), CATALOG_DU, pkg.du.index);
}

void RecordFiles::delete_eu(const pkg_info& pkg) const {
    for (const eu_info& eu : pkg.eu) delete_unit(eu_path(eu.index), CATALOG_EU, eu.index);
}

void RecordFiles::delete_ee(const pkg_info& pkg) const {
    if (pkg.ee) delete_unit(ee_path(pkg.ee->index), CATALOG_EE, pkg.ee->index);
}

void RecordFiles::load_pkg(pkg_info& pkg) const {
    ubus::BlobBuf msg;
    if (load_record(msg, pkg_path(pkg.id))) load_linked(pkg, msg.members());
}

void RecordFiles::reload_pkg(pkg_info& pkg) const {
    package_data_free_du_info(pkg.du);
    package_data_free_eu_info(pkg);
    package_data_free_ee_info(pkg);
    load_pkg(pkg);
}

void RecordFiles::load_linked(pkg_info& pkg, ubus::Bytes pkg_members) const {
    const pkg_record_links links = apply_pkg_record(pkg, pkg_members);
    if (links.ee) load_ee(pkg, *links.ee);
    if (links.du) load_du(pkg, *links.du);
    for (const std::int32_t index : links.eu) load_eu(pkg, index);
}

int RecordFiles::load_du(pkg_info& pkg, std::int32_t index) const {
    ubus::BlobBuf msg;
    if (!load_record(msg, du_path(index))) return -1;
    apply_du_record(pkg.du, index, msg.members());
    return 0;
}

void RecordFiles::load_eu(pkg_info& pkg, std::int32_t index) const {
    ubus::BlobBuf msg;
    if (load_record(msg, eu_path(index))) pkg.eu.push_back(eu_record_from(index, msg.members()));
}

void RecordFiles::load_ee(pkg_info& pkg, std::int32_t index) const {
    ubus::BlobBuf msg;
    if (load_record(msg, ee_path(index))) pkg.ee = ee_record_from(index, msg.members());
}

}  // namespace pkgd

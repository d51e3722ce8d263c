// Record files: each record survives restarts as one small JSON file under /usr/local/package/ —
// the package in pkg/ (named by its id), the deployment unit in du/, each execution unit in eu/
// and the execution environment in ee/ (named by their index). Worker processes write and delete
// them; the daemon reads them back at start-up and when a worker's events say a package changed.
// Writing or deleting a DU, EU or EE file also updates the LCM catalog with the same content.
//
// A file is replaced atomically (written beside the record, flushed, renamed over it, directory
// flushed), so a power cut leaves either the old record or the new one, never a torn one.
// Failures are silent, as the callers have no better record to fall back on: a file that cannot
// be written leaves the previous one, a file that cannot be read leaves the record as it was.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "pkgd/file_io.hpp"
#include "pkgd/records.hpp"
#include "ubus/blob.hpp"

namespace pkgd {

inline constexpr std::string_view kPackageDir = "/usr/local/package";

// ---------------------------------------------------------------------------------------------
// The gateway's record files (under kPackageDir, "EE" = the environment's name, catalog in step)

void package_store_pkg_info(const pkg_info& pkg);
void package_store_du_info(const pkg_info& pkg);
void package_store_eu_info(const pkg_info& pkg);  // one file per execution unit, in list order
void package_store_ee_info(const pkg_info& pkg);  // nothing without an environment
// Returns 0 when the package file was removed, -1 otherwise.
int package_delete_pkg_info(const pkg_info& pkg);
// The catalog entry is deleted even when the file was already gone. The in-memory records stay.
void package_delete_du_info(const pkg_info& pkg);
void package_delete_eu_info(const pkg_info& pkg);
void package_delete_ee_info(const pkg_info& pkg);
// Reads the package file of `pkg.id` and, through it, the EE, DU and EU files into `pkg`. Old unit
// data is not released first: a caller that reloads a package releases it itself.
void package_get_pkg_info(pkg_info& pkg);
// Drops the package's unit data (deployment-unit texts, execution units, environment), then reads
// the files again, so a reload never repeats execution units. Without a readable package file the
// unit data stays dropped.
void package_reload_pkg_info(pkg_info& pkg);
// Returns 0 when the DU file was read, -1 (record untouched) otherwise.
int package_get_du_info(pkg_info& pkg, std::int32_t index);
void package_get_eu_info(pkg_info& pkg, std::int32_t index);  // appends one unit
void package_get_ee_info(pkg_info& pkg, std::int32_t index);  // replaces the environment

// ---------------------------------------------------------------------------------------------
// The same for record files under any directory (tests, benchmarks)

class RecordFiles {
public:
    // `base_dir` holds pkg/, du/, eu/ and ee/; `ee_name` is written as "EE"; with
    // `mirror_catalog` false the catalog is never told. Files are written through `io`.
    RecordFiles(std::string base_dir, std::string ee_name, bool mirror_catalog, FileIo& io = posix_file_io());
    // The gateway's: kPackageDir, the environment's name, the catalog kept in step.
    static RecordFiles gateway();

    // Creates pkg/ and ee/ when missing (base_dir must exist): du/ and eu/ come with the system.
    void make_directories() const;
    // Removes the temporary files that writers cut off by a crash or power cut left in the record
    // directories, each named for its writer's pid: those of a process that is gone, or of this
    // one (which writes no record while it cleans up). A worker of an earlier daemon may still be
    // writing; its files stay.
    void remove_stale_temporaries() const;
    void store_pkg(const pkg_info& pkg) const;
    void store_du(const pkg_info& pkg) const;
    void store_eu(const pkg_info& pkg) const;
    void store_ee(const pkg_info& pkg) const;
    int delete_pkg(const pkg_info& pkg) const;
    void delete_du(const pkg_info& pkg) const;
    void delete_eu(const pkg_info& pkg) const;
    void delete_ee(const pkg_info& pkg) const;
    void load_pkg(pkg_info& pkg) const;
    void reload_pkg(pkg_info& pkg) const;
    int load_du(pkg_info& pkg, std::int32_t index) const;
    void load_eu(pkg_info& pkg, std::int32_t index) const;
    void load_ee(pkg_info& pkg, std::int32_t index) const;

    // The package file's path; empty for an id that is not a plain visible file name (empty,
    // containing "/" or starting with "."), which is never written, read or removed: the id may
    // come from a request, and hidden names are skipped when packages are restored.
    std::string pkg_path(std::string_view id) const;
    std::string du_path(std::int32_t index) const { return index_path("/du/", index); }
    std::string eu_path(std::int32_t index) const { return index_path("/eu/", index); }
    std::string ee_path(std::int32_t index) const { return index_path("/ee/", index); }
    // The directory of the package files.
    std::string pkg_dir() const { return base_ + "/pkg"; }
    // The directory of the operation journal, beside the record directories.
    std::string journal_dir() const { return base_ + "/journal"; }

private:
    std::string index_path(std::string_view dir, std::int32_t index) const;
    // The package file's members applied to `pkg`, then the unit files they point to.
    void load_linked(pkg_info& pkg, ubus::Bytes pkg_members) const;
    // Writes the file, then tells the catalog whether or not the file could be written.
    void store_unit(const std::string& path, int kind, std::int32_t index, const ubus::BlobBuf& msg) const;
    void delete_unit(const std::string& path, int kind, std::int32_t index) const;

    std::string base_;
    std::string ee_name_;
    bool mirror_catalog_;
    FileIo* io_;
};

// ---------------------------------------------------------------------------------------------
// Records <-> record messages (the pure core)
//
// Each builder appends the file's members to `msg` (an empty buffer) in the file's order, each
// under its condition. A record lacking a text that is always written (a DU or EE without name, an
// EU without euid or name) gets it as an empty string: the file keeps its full shape, so the
// catalog and every reader see the same members whatever the record holds.

void pkg_record_message(ubus::BlobBuf& msg, const pkg_info& pkg);
void du_record_message(ubus::BlobBuf& msg, const pkg_info& pkg, std::string_view ee_name);
void eu_record_message(ubus::BlobBuf& msg, const pkg_info& pkg, const eu_info& eu, std::string_view ee_name);
void ee_record_message(ubus::BlobBuf& msg, const pkg_info& pkg, const ee_info& ee, std::string_view ee_name);

// Applying a record file's members (as loaded from its JSON). Members of the wrong type count as
// absent; absent members leave their fields as they were.

// The deployment unit; `du.index` becomes `index` first.
void apply_du_record(du_info& du, std::int32_t index, ubus::Bytes members);
eu_info eu_record_from(std::int32_t index, ubus::Bytes members);
ee_info ee_record_from(std::int32_t index, ubus::Bytes members);

// What a package file points to.
struct pkg_record_links {
    std::optional<std::int32_t> ee;
    std::optional<std::int32_t> du;
    std::vector<std::int32_t> eu;  // in array order; elements that are not integers are skipped
};
// Applies the package's own members (source URL, credentials, disableautostart) and returns the
// records it points to.
pkg_record_links apply_pkg_record(pkg_info& pkg, ubus::Bytes members);

}  // namespace pkgd

// The engine's building blocks, for the operations and their tests: feed configuration and index,
// resource checks, version order, package verification and discovery.
#pragma once

#include <array>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "pkgd/engine.hpp"

namespace pkgd {

// ---------------------------------------------------------------------------------------------
// Lines as the feed tools read them: pieces of at most `max` bytes, each ending after its line
// feed or at the size limit; a longer line comes in several pieces, each handled as a line.
class LineReader {
public:
    explicit LineReader(std::string_view text) : text_(text) {}
    std::optional<std::string_view> next(std::size_t max);

private:
    std::string_view text_;
};

// `text` without one trailing line feed.
std::string_view chomp(std::string_view text);

// ---------------------------------------------------------------------------------------------
// opkg configuration and feed index

// The feed-index keys, in the order a line is matched against them; single-line fields lose
// their line feed, the others ("Description:", "Tags:") may continue over lines.
struct opkg_option {
    std::string_view key;
    bool single_line;
};
inline constexpr std::array<opkg_option, 16> s_opkg_options{{
    {"Package:", true},
    {"Version:", true},
    {"Filename:", true},
    {"LicenseFiles:", true},
    {"Installed-Size:", true},
    {"Description:", false},
    {"License:", true},
    {"Tags:", false},
    {"Section:", true},
    {"Architecture:", true},
    {"Provides:", true},
    {"Maintainer:", true},
    {"Size:", true},
    {"MD5Sum:", true},
    {"Depends:", true},
    {"SHA256sum:", true},
}};

bool package_opkg_str_starts_with(std::string_view text, std::string_view prefix);

// The configuration text for one feed; `lists_dir` adds "option lists_dir" (the latest-version
// query's own index).
std::string opkg_conf_text(const engine_paths& paths, const char* feed_url, const char* user,
                           const char* password, bool check_signature, std::string_view lists_dir = {});

// Writes the configuration file at `path` (mode 0600: it may hold the proxy password). 0, or -1
// when it cannot be written.
int package_opkg_create_conf(const engine_paths& paths, const std::string& path, const char* feed_url,
                             const char* user, const char* password, std::string_view lists_dir = {});

// The feed URL and file name of a package URL, split at its last "/"; nothing without one.
std::optional<std::pair<std::string, std::string>> split_package_url(std::string_view url);

// `url` without user-info ("https://user:pw@host/x" -> "https://host/x"): what logs and
// command lines may show.
std::string url_without_userinfo(std::string_view url);

// The feed's credentials: the request's user name and password, or, without a user name, the
// URL's user-info (percent-decoded). The commands see the URL without user-info, so credentials
// written into the URL reach opkg only through the 0600 configuration file.
std::pair<std::string, std::string> feed_credentials(const pkg_info& pkg);

// Refreshes the package's feed ("opkg update -f <conf>"). 0 or -1.
int package_opkg_update(engine_context& ctx, const pkg_info& pkg);

// Finds the feed record of `file_name` (and `version` unless empty) in the index text and copies
// it into `du`. 0, or -1 with `du` untouched.
int retrieve_package_info(std::string_view index_text, std::string_view file_name, std::string_view version,
                          du_info& du);
// The same on the feed index file.
int package_opkg_retrieve_package_info(const engine_context& ctx, std::string_view file_name,
                                       std::string_view version, du_info& du);

// ---------------------------------------------------------------------------------------------
// Resource checks and version order

// 0 when there is enough memory / disk for `size` bytes, 1 when not or when it cannot tell.
int package_opkg_get_sys_mem(std::int32_t size, SystemEnv& sys);
int package_opkg_check_disk_size(std::int32_t size, SystemEnv& sys);
// 1 when version `a` orders strictly before `b`, 0 otherwise.
int opkg_compare_version(std::string_view a, std::string_view b);

// ---------------------------------------------------------------------------------------------
// Package verification

// Extraction bounds. The outer members are compressed archives and short texts, so their sizes
// together stay near the package file's: more than twice the file plus 1 MiB is a bomb. The
// control file is a few hundred bytes; 64 KiB is plenty.
inline constexpr std::uint64_t kMemberMargin = 1U << 20;
inline constexpr std::uint64_t kControlFileMax = 64U << 10;
std::uint64_t outer_extract_limit(std::uint64_t package_size);

// The digest texts of lines 1 (data.tar.gz) and 2 (control.tar.gz) of "checksum.sha256": the
// text before each line's last space; nothing for a line without a space (or a missing line).
std::array<std::optional<std::string>, 2> read_checksum_digests(std::string_view text);

// 0 when every "Package:" line of the control text names `name`, -1 at the first that differs.
int check_control_name(std::string_view control_text, std::string_view name);

// 0 when the package passed the signature, digest and control checks; non-zero otherwise.
int verify_package(engine_context& ctx, const std::string& package_path, const operation_info& op);
// The same checks with only what they read passed in: the working directory and trust anchor of
// `paths`, the time the signer's certificate must be valid at, and the package name the control
// file must carry. The package file may hold anything (fuzzing feeds it arbitrary bytes).
int verify_package_file(const engine_paths& paths, std::time_t now, const std::string& package_path,
                        std::string_view name);

// ---------------------------------------------------------------------------------------------
// Unit and environment discovery

int package_opkg_update_du_info(engine_context& ctx, pkg_info& pkg);
int package_opkg_update_ee_info(engine_context& ctx, pkg_info& pkg);
int package_opkg_update_eu_info(engine_context& ctx, pkg_info& pkg);
void get_filelist(engine_context& ctx, pkg_info& pkg);

// ---------------------------------------------------------------------------------------------
// Steps the operations share with the recovery of an interrupted one

// Undoes an install: opkg removes the package first when `remove_package` (opkg installed it),
// then the environment, the data-model instances and the record files go.
void undo_install(engine_context& ctx, const operation_info& op, bool remove_package);
// The new version's records (units discovered again) replace the installed version's.
void refresh_update_records(engine_context& ctx, const operation_info& op);
// The data-model instances and record files of a package opkg has removed.
void forget_removed_package(engine_context& ctx, const operation_info& op);
// opkg's control file of the package: it exists while opkg has the package installed.
std::string installed_check_path(const engine_context& ctx, const pkg_info& pkg);

// ---------------------------------------------------------------------------------------------
// Latest-version query

// The highest version the index text lists for `name` (empty when none; at most 127 characters).
std::string latest_feed_version(std::string_view index_text, std::string_view name);

// Reads a whole file; nothing when it cannot be read.
std::optional<std::string> read_text_file(const std::string& path);

}  // namespace pkgd

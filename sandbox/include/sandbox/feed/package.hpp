// Building .ipk packages for the sandbox feed: an outer gzip tar holding "debian-binary",
// "control.tar.gz", "data.tar.gz", "checksum.sha256" (line 1 data, line 2 control, each
// "<hex digest> <name>") and "checksum.sig", a detached signature over "checksum.sha256".
// Hostile variants break exactly one of those promises each.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sandbox/feed/pki.hpp"

namespace sandbox::feed {

struct TreeEntry {
    enum class Kind { file, directory, symlink };
    std::string path;  // relative, "/" separated
    Kind kind = Kind::file;
    std::string data;  // a file's content, a symlink's target
    unsigned mode = 0644;
};
using Tree = std::vector<TreeEntry>;

TreeEntry file_entry(std::string path, std::string content, unsigned mode = 0644);
TreeEntry directory_entry(std::string path, unsigned mode = 0755);
TreeEntry symlink_entry(std::string path, std::string target);

// Everything below `dir`, in name order (directories before what they hold).
Tree load_tree(const std::filesystem::path& dir);

enum class Hostile {
    none,
    bad_digest,        // line 1 of checksum.sha256 names another digest (and is signed so)
    unsigned_package,  // no checksum.sig
    untrusted_signer,  // signed by a signer the CA did not certify
    expired_signer,    // signed by a certified signer whose certificate has expired
    name_mismatch,     // the control file's "Package:" differs from the name the index gives
    dotdot_member,     // an extra member "../escaped"
    absolute_member,   // an extra member "/escaped"
    link_member,       // a member "escaped-link" -> "/tmp", then "escaped-link/escaped" through it
    gzip_bomb,         // a small outer archive whose one member expands to `bomb_bytes`
};
std::optional<Hostile> parse_hostile(std::string_view name);  // "bad-digest", "gzip-bomb" ...
std::string_view hostile_name(Hostile kind);
std::vector<Hostile> all_hostile();

struct PackageSpec {
    std::string control;                         // the control file; must have "Package:"
    Tree tree;                                   // the payload
    std::map<std::string, std::string> scripts;  // "postinst", "prerm" ... -> script text
    bool dot_slash_names = false;                // name members "./x", as stock package tools do
    Hostile hostile = Hostile::none;
    std::uint64_t bomb_bytes = std::uint64_t{4} << 30;
};

struct Package {
    std::string bytes;          // the .ipk file
    std::string index_control;  // the control the feed index describes it with
    std::uint64_t installed_size = 0;  // bytes of the payload's files
};

Package build_package(const PackageSpec& spec, const Pki& pki);

// The "name_version_arch.ipk" a feed usually files a package under.
std::string package_file_name(std::string_view control);

// The value of `key` ("Package", "Version" ...) in a control text; "" when absent.
std::string control_field(std::string_view control, std::string_view key);
// The content of the first member of a tar (gzip or plain) named `name` or "./name".
std::string read_member(std::string_view tar_bytes, std::string_view name);
// The control file inside a package's control.tar.gz.
std::string read_package_control(std::string_view ipk_bytes);
// The bytes of the regular files in a package's data.tar.gz.
std::uint64_t read_installed_size(std::string_view ipk_bytes);

}  // namespace sandbox::feed

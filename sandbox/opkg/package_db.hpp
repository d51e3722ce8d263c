// The record of installed packages in the info directory: for each package NAME, NAME.control
// (its control file), NAME.list (one installed path per line, each starting with "/"), NAME.dirs
// (directories its installs created, removed with it when empty) and its maintainer scripts.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace opkg {

inline constexpr const char* info_dir_inside = "/usr/lib/opkg/info";

// The suffixes of the info files that belong to one package.
inline constexpr const char* info_suffixes[] = {"control", "list",     "dirs",  "conffiles",
                                                "preinst", "postinst", "prerm", "postrm"};

struct PackageDb {
    std::string info_dir;  // host path

    std::string file(std::string_view package, std::string_view suffix) const;
    bool installed(std::string_view package) const;
    // Names of the installed packages, sorted.
    std::vector<std::string> packages() const;
    // The lines of NAME.SUFFIX, empty ones dropped; empty when there is no such file.
    std::vector<std::string> lines(std::string_view package, std::string_view suffix) const;
    // Installed path -> owning package, for every package but `except`.
    std::map<std::string, std::string> owners(std::string_view except) const;
};

std::string join_lines(const std::vector<std::string>& lines);

}  // namespace opkg

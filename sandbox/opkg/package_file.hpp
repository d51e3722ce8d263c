// A package file (.ipk) taken apart: the outer archive (gzip'd tar, or ar) holds "debian-binary",
// "control.tar.gz" and "data.tar.gz"; anything else in it (a package's own checksums) is ignored.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "archive_io.hpp"
#include "control.hpp"

namespace opkg {

struct PackageFile {
    std::string control_text;
    ControlFields control;
    std::string name;     // "Package:", checked by valid_package_name
    std::string version;  // "Version:", may be empty
    // Members of control.tar.gz besides "control" that the info directory keeps, by suffix:
    // "postinst", "prerm", "preinst", "postrm", "conffiles".
    std::map<std::string, std::string> extras;
    std::vector<ArchiveMember> data;  // the members of data.tar.gz
};

std::optional<PackageFile> read_package(std::string_view bytes, std::string& error);

}  // namespace opkg

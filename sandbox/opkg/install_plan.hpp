// What installing a package's data would do, worked out before anything is written: every member
// checked to land inside the root, to be a kind of file we install, and to belong to no other
// package.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "archive_io.hpp"

namespace opkg {

struct PlannedEntry {
    std::string path;                                      // relative to the root, "usr/bin/x"
    ArchiveMember::Kind kind = ArchiveMember::Kind::file;  // file, directory or symlink
    unsigned mode = 0;
    std::string link;                   // a symlink's target
    const std::string* data = nullptr;  // a file's contents, owned by the archive members
};

struct InstallPlan {
    std::vector<PlannedEntry> directories;  // parents before children
    std::vector<PlannedEntry> files;        // regular files and symlinks
    std::uint64_t bytes = 0;                // contents of the files
    // The package's file list: "/" + path of each file, in archive order.
    std::vector<std::string> list() const;
};

struct PlanResult {
    InstallPlan plan;
    std::string error;
    bool ok() const { return error.empty(); }
};

// `owners` maps installed paths ("/usr/bin/x") of the other packages to their names.
PlanResult plan_install(const std::vector<ArchiveMember>& data,
                        const std::map<std::string, std::string>& owners);

}  // namespace opkg

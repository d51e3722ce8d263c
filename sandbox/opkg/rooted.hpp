// Directories below the installation root, looked up as if the root were "/": symbolic links
// already on the system are followed but can never lead out of the root, so an offline root
// (-o) is as contained as the chroot a gateway runs us in.
#pragma once

#include <string>
#include <string_view>
#include <utility>

#include "files.hpp"

namespace opkg {

struct RootDir {
    UniqueFd fd;  // the root itself

    // The directory `relative` ("" is the root), opened O_PATH for the *at calls; invalid with
    // errno set when it does not exist or is not a directory.
    UniqueFd open_dir(std::string_view relative) const;
};

// Opens `host_path` as the root; invalid with errno set on failure.
RootDir open_root(const std::string& host_path);

// "usr/bin/x" -> {"usr/bin", "x"}; "x" -> {"", "x"}.
std::pair<std::string, std::string> split_parent(std::string_view relative);

}  // namespace opkg

// Maintainer scripts (postinst, prerm, ...): executed directly, never through a shell of ours;
// each names its own interpreter on its first line.
#pragma once

#include <string>

namespace opkg {

// Runs `script` with the single argument `action` ("configure", "remove", "upgrade"), cwd "/",
// and PKG_ROOT naming the installation root. Empty result: it exited 0; otherwise what happened.
// A script that is not there counts as success.
std::string run_script(const std::string& script, const std::string& action, const std::string& root);

}  // namespace opkg

// Names of archive members, checked before anything is written: a package may place files
// anywhere below "/", never above it.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace opkg {

// The member's path relative to "/": "./usr/bin/x", "usr/bin/x" and "/usr/bin/x" all give
// "usr/bin/x", and "./" gives "" (the root itself). nullopt when a component is "..", which could
// climb out of the root, or the name holds a control character.
std::optional<std::string> normalise_member(std::string_view name);

// Whether a symbolic link at `link` (as normalise_member gives it) pointing to `target` resolves
// to a place inside the root: an absolute target counts from the root, a relative one from the
// link's directory, and no ".." may climb above the root on the way.
bool link_target_inside(std::string_view link, std::string_view target);

}  // namespace opkg

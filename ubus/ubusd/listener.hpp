// The broker's listening socket.
#pragma once

#include <string>

#include "ubus/fd.hpp"

namespace ubusd {

// Creates the bus socket at `path`: its directory is created when missing, a file already at
// the path (a stale socket of an earlier run) is removed, and the socket is made connectable by
// everyone (mode 0666). Non-blocking, close-on-exec. On failure returns an invalid fd and says
// why in `error`.
ubus::UniqueFd open_listener(const std::string& path, std::string& error);

}  // namespace ubusd

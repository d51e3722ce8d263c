// Start-up, the main loop and tear-down.
#pragma once

#include "daemon/start_options.hpp"

namespace pkgd {

// Exit status when the bus cannot be reached at start-up or one of the objects pkgd cannot do
// without is refused (at start-up or when registering again after a broker restart).
inline constexpr int kExitNoBus = 255;

// Detaches (unless in the foreground), changes the root, creates the working directories, fixes
// the environment's identity, registers the bus objects in their fixed order and serves until
// SIGINT or SIGTERM, through any number of broker restarts. Returns the process's exit status: 0
// after serving, kExitNoBus otherwise.
int run_daemon(const start_options& options);

}  // namespace pkgd

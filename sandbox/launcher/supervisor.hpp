// PID 1 of a sandbox: makes the mounts, runs the syslog collector and the control socket, starts the
// broker, the simulator and pkgd, reaps every process that ends up in its care, and on SIGTERM stops
// pkgd, then the simulator, then the broker. When it returns, the kernel kills whatever is left.
#pragma once

#include "launch_options.hpp"
#include "ubus/fd.hpp"

namespace sandbox {

// `report` receives "ready" or "failed <reason>" (one line) once start-up is over; `launcher_alive`
// reaches end of file when the launcher is gone. Returns the exit status for the PID 1 process.
int run_supervisor(const LaunchOptions& options, ubus::UniqueFd report, ubus::UniqueFd launcher_alive);

}  // namespace sandbox

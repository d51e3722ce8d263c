// The launcher's two commands that act on a sandbox as a whole: running one, and running a
// program inside a running one.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "launch_options.hpp"

namespace sandbox {

// Builds the root, enters private namespaces, runs PID 1 there until SIGTERM/SIGINT/SIGHUP (passed on
// as an orderly stop) and returns its exit status. Writes the ready file once everything is up.
int launch(const LaunchOptions& options);

// Runs `argv` inside the running sandbox at `root` (its namespaces, chrooted into it, with the
// gateway's search path and `env` added) and returns its exit status as a shell would (125: no
// such sandbox, 127: the program could not be run). Signals sent to this process are passed on.
// With `pid_fd` >= 0, the program's pid inside the sandbox is written there before it starts.
int exec_inside(const std::filesystem::path& root, const std::vector<std::string>& env,
                const std::vector<std::string>& argv, int pid_fd);

}  // namespace sandbox

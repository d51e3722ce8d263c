// Running the ubus tool (and the demo owner) as child processes and collecting what they print.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "ubus/fd.hpp"

namespace cli_test {

struct Output {
    std::string out;
    std::string err;
    int exit = -1;  // exit status, or 128 + signal
};

// The tool, started with `argv` (argv[0] included) in directory `dir`, stdout and stderr on pipes.
class CliProcess {
public:
    CliProcess(const std::vector<std::string>& argv, const std::string& dir);
    ~CliProcess();
    CliProcess(const CliProcess&) = delete;
    CliProcess& operator=(const CliProcess&) = delete;

    pid_t pid() const { return pid_; }
    // True once the tool sleeps in its event loop, that is, it has registered whatever it waits
    // for (its own requests wait with poll, only the loop waits with epoll). False if it ended or
    // did not get there within `timeout_ms`.
    bool wait_until_serving(int timeout_ms = 10000) const;
    // Collects everything the tool writes until it exits.
    Output finish();

private:
    pid_t pid_ = -1;
    ubus::UniqueFd out_;
    ubus::UniqueFd err_;
};

inline Output run_cli(const std::vector<std::string>& argv, const std::string& dir) {
    return CliProcess(argv, dir).finish();
}

// Runs `sh -c <command>` on a pseudo-terminal in `dir`, with `path_dir` first in PATH, and returns
// what appeared on the terminal with "\r\n" turned back into "\n".
std::string run_in_terminal(const std::string& command, const std::string& dir, const std::string& path_dir);

// The "demo" object's owner (cli_demo_owner), serving until destroyed.
class DemoOwner {
public:
    explicit DemoOwner(const std::string& socket);
    ~DemoOwner();
    DemoOwner(const DemoOwner&) = delete;
    DemoOwner& operator=(const DemoOwner&) = delete;

private:
    pid_t pid_ = -1;
};

}  // namespace cli_test

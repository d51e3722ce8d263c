// Stand-ins for the gateway's system-log and command-runner libraries.
#pragma once

#include <string>
#include <vector>

namespace pkgd {

// Writes one syslog record at `level` (a syslog priority, e.g. 6 = info). The category is kept
// in the record as a "[category]" prefix of the text. The two reserved arguments are unused.
void log_sys(int level, int category, int reserved1, int reserved2, const char* fmt, ...)
    __attribute__((format(printf, 5, 6)));

// Runs argv[0] (looked up in PATH when it has no "/") with the arguments as given: no shell ever
// sees them, so request and feed data cannot become commands. Standard input is /dev/null and no
// descriptor beyond the standard three is inherited. Returns the exit status, or -1 when the
// command could not be started or ended by a signal.
int run_command(const std::vector<std::string>& argv);

// The seam through which the engine runs its commands, so tests can record the argument vectors
// and make any command fail.
class CommandRunner {
public:
    virtual ~CommandRunner() = default;
    virtual int run(const std::vector<std::string>& argv) = 0;
};

// The runner that calls run_command.
CommandRunner& real_command_runner();

}  // namespace pkgd

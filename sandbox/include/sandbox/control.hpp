// The launcher's control socket: one request line, one reply line per connection.
//
//   requests: "status", "start", "stop", "restart", "signal <number>" (all about pkgd), and
//             "restart-broker" (kills the broker and starts it again, with the simulator)
//   replies:  "ok <pkgd status>" or "error <message>"
//
// A pkgd status is "<state> <pid> <runs> <last exit>", e.g. "running 7 2 exit:0" or
// "exited 7 1 signal:9"; the last exit is "-" before pkgd has ever ended.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "sandbox/status.hpp"

namespace sandbox {

struct PkgdStatus {
    enum class State { kAbsent, kIdle, kRunning, kExited };  // absent: no pkgd configured
    State state = State::kAbsent;
    pid_t pid = 0;                        // inside the sandbox; the last one once exited
    unsigned runs = 0;                    // how often pkgd has been started
    std::optional<int> last_wait_status;  // of the last run that ended

    bool exited_with(int code) const;
    bool killed_by(int signal) const;
};

std::string format_pkgd_status(const PkgdStatus& status);
std::optional<PkgdStatus> parse_pkgd_status(std::string_view text);

// "exit:N" or "signal:N" for a wait status.
std::string format_wait_status(int wait_status);

// Sends one request and returns the reply line (without its newline), within `timeout`.
struct ControlReply {
    bool ok = false;   // the launcher answered "ok ..."
    std::string text;  // what followed "ok " / "error ", or why no answer came
};
ControlReply control_request(const std::filesystem::path& socket, std::string_view request,
                             std::chrono::milliseconds timeout);

}  // namespace sandbox

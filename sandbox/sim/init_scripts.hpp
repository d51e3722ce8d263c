// Running a gateway's init scripts as its service manager does: "/etc/init.d/NAME start|stop",
// one script after the other, without a shell, while the event loop goes on serving.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "ubus/loop.hpp"

namespace sandbox::sim {

inline constexpr std::string_view kInitDir = "/etc/init.d";
// A script still running after this is killed and counts as failed: a hung script must not leave
// its request unanswered for ever.
inline constexpr std::chrono::seconds kScriptTimeLimit{30};

// Whether a name from a request may be used as a script name: not empty, no "/" and no "..", so
// that it can only name a file directly in the init directory.
bool valid_script_name(std::string_view name);

// Runs each script with `action` as its only argument, in order, each once the previous one has
// ended; then calls `done` from the loop with whether every script exited with status 0. Scripts
// write to the simulator's own output.
void run_init_scripts(ubus::Loop& loop, std::vector<std::string> names, std::string action,
                      std::function<void(bool all_succeeded)> done);

}  // namespace sandbox::sim

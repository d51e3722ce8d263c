// The demonstration's bus side: each step is shown as the command a user would type, then its
// status and reply; the LCM events and the operation results are printed as they arrive.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ubus/client.hpp"

namespace demo {

inline constexpr std::string_view kLcmEvents = "Services.Management.LCM";
inline constexpr std::string_view kResultEvent = "SOFTWAREMODULES.PACKAGE.OPERATIONSRESULT";

// An operation's result event, the fields the walk looks at.
struct OperationResult {
    std::int32_t request_id = 0;
    std::string performed;  // "Install", "Update", "Uninstall"
    std::string uuid;
    std::int32_t fault_code = -1;
};

// Listens to the LCM events and the operation results on a connection of its own and prints
// each one as it arrives.
class EventWatch {
public:
    bool start(const std::string& socket);

    // Handles what has arrived, waiting up to `timeout`.
    void pump(std::chrono::milliseconds timeout);
    // The first result that satisfies `wanted` among those arriving until `timeout` passes, printing
    // events meanwhile and a line of progress every few seconds. Results seen before are forgotten
    // by forget().
    std::optional<OperationResult> wait_result(const std::function<bool(const OperationResult&)>& wanted,
                                               std::chrono::seconds timeout);
    void forget() { results_.clear(); }
    // The "PackageId" of the latest LCM event that had one: the package's object.
    const std::string& last_package_object() const { return last_package_; }

private:
    void on_event(std::string_view type, ubus::Bytes data);

    ubus::Connection bus_;
    std::vector<OperationResult> results_;
    std::string last_package_;
};

// A call's outcome: the bus status and the reply as compact JSON ("" without one).
struct CallOutcome {
    int status = -1;
    std::string reply;
    bool ok() const { return status == ubus::kOk; }
    // The reply's envelope says "OK" (or there is no envelope, as with bare replies).
    bool envelope_ok() const;
    // The text value of `key` in the reply (first occurrence, any depth); "" when absent.
    std::string text(std::string_view key) const;
};

// Calls `method` on `object` with the JSON arguments `args` ("" for none), printing nothing.
CallOutcome call_quietly(ubus::Connection& bus, const std::string& object, std::string_view method,
                         const std::string& args);

// The same after printing the command a user
// would type, with `shown_args` in place of `args` (the same less the password); prints the status
// and the reply.
CallOutcome call_and_show(ubus::Connection& bus, const std::string& object, std::string_view method,
                          const std::string& args, const std::string& shown_args);

// A heading for a step of the walk.
void step_heading(int number, std::string_view what);
// A line reporting a failed step; the walk goes on.
void step_failed(std::string_view why);

}  // namespace demo

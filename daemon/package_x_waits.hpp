// The per-package methods that wait on a peer: Start and Stop on the environment's service
// manager, IsLatestVersion on a query child of its own. None of them holds up the loop: each
// defers its reply, and the loop serves every other call until the peer answers or its time
// runs out.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>

#include "pkgd/records.hpp"
#include "ubus/client.hpp"

namespace pkgd {

struct daemon_context;

// How long IsLatestVersion waits for its query before answering "Result" true.
inline constexpr std::chrono::milliseconds kLatestVersionWait{5000};

// Asks whether the feed of `pkg` holds a newer version: 1 when it does, 0 when not. Runs in a
// child process forked for the call, never in the daemon.
using latest_version_query = std::function<int(const pkg_info& pkg)>;

struct latest_version_wait;

// The IsLatestVersion calls still waiting for their query, each owning its pipe, its descriptor
// watch, its timer and its deferred reply; a call leaves when it is answered. Whatever is still
// pending when this goes is answered with a failure status and unhooked from the loop.
struct package_waits {
    package_waits();
    ~package_waits();
    package_waits(const package_waits&) = delete;
    package_waits& operator=(const package_waits&) = delete;

    std::size_t size() const { return pending.size(); }
    // Ends every pending call with a failure status, while the loop they are hooked to exists.
    void clear();

    // The query the children run; the gateway's package tool and feeds unless replaced.
    latest_version_query query;
    std::map<std::uint64_t, std::unique_ptr<latest_version_wait>> pending;
    std::uint64_t next_key = 0;
};

// "Start" / "Stop": for an installed package, the "operate" request to the environment's service
// manager; "OK" once it succeeds (after LCM event 10 or 11 naming the package), "OPERATION_ILLEGAL"
// when the package is missing or not installed, the service manager is absent, refuses, or does
// not answer within kServiceManagerTimeoutMs.
int package_x_start(daemon_context& d, ubus::Request& req);
int package_x_stop(daemon_context& d, ubus::Request& req);

// "IsLatestVersion": "OK" with "Result" false as soon as the query finds a newer version, true
// when it finds none, fails, or has not answered within kLatestVersionWait. "OPERATION_ERROR"
// for a package missing or not installed, "ARGUMENT_REQUIRED_MISSING" for a "Source" without
// "Protocol" or "Address". A Source is queried with the package's name and version, and with
// the package's own credentials where the Source gives none.
int package_x_islatestversion(daemon_context& d, ubus::Request& req);

}  // namespace pkgd

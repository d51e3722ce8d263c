// Staying on the bus through broker restarts.
//
// A broker that goes away (restarted, crashed) takes every client's objects with it, but not the
// daemon: its registry, queue and workers live on, and the loop keeps serving workers' exits and
// timers. The daemon connects again every kReconnectInterval until the broker accepts, then
// registers all its objects and its LCM listener again under the same names, in the start-up
// order (register_again); only their bus ids change. It logs the loss and the recovery once each.
//
// Calls open at the loss end with it: a Start or Stop waiting for the service manager fails (its
// caller went with the broker), an IsLatestVersion query runs out as usual and its answer goes
// nowhere. Workers keep running; what they send while the broker is away is lost to the bus.
#pragma once

#include <chrono>
#include <string>

#include "daemon/daemon_context.hpp"
#include "ubus/loop.hpp"

namespace pkgd {

// Short enough that the objects are back well within a second of the broker accepting again, long
// enough that a broker down for minutes costs nothing but a failed connect now and then.
inline constexpr std::chrono::milliseconds kReconnectInterval{150};

// Watches d.ctx (attached to `loop`) for the broker going away, from construction to destruction.
struct bus_reconnect {
    bus_reconnect(daemon_context& d, ubus::Loop& loop, std::string socket);
    ~bus_reconnect();
    bus_reconnect(const bus_reconnect&) = delete;
    bus_reconnect& operator=(const bus_reconnect&) = delete;

    daemon_context& d;
    ubus::Loop& loop;
    std::string socket;        // where the broker listens
    ubus::Loop::Id timer = 0;  // the next attempt, while one is due
    bool down = false;         // from the loss to the recovery
    // The broker came back but refused an object the daemon cannot serve without (another client
    // holds its name): the loop was stopped, as start-up ends on the same refusal.
    bool refused = false;
};

// Runs after every successful re-registration, once the daemon is whole on the bus again: what it
// owes the bus from its time away goes out from here.
void on_bus_restored(daemon_context& d);

}  // namespace pkgd

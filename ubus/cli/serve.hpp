// Serving incoming traffic for the commands that wait for it (listen, subscribe, wait_for,
// monitor).
#pragma once

#include "cli.hpp"
#include "ubus/client.hpp"
#include "ubus/loop.hpp"

namespace ubus_cli {

// Handles the connection's traffic from `loop` until SIGINT or SIGTERM, until a handler calls
// loop.stop(), until the broker goes away, or for `timeout_ms` (0: no limit). Returns kOk,
// kTimeout when the time ran out, or kConnectionFailed when the broker went away.
int serve(ubus::Connection& bus, ubus::Loop& loop, int timeout_ms);

// For the commands that run for -t seconds when it is given and otherwise until interrupted
// (listen, subscribe, monitor): kOk, or kConnectionFailed when the broker went away.
int serve_for_duration(Context& cx, ubus::Loop& loop);

}  // namespace ubus_cli

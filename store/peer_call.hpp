// One request or one event over a bus connection of its own. Worker processes never share the
// daemon's connection, and a short-lived one leaves nothing behind when the peer misbehaves.
#pragma once

#include <string_view>

#include "ubus/blob.hpp"

namespace pkgd {

// Connects on the default socket, looks `object` up, invokes `method` with `args` (replies are
// not read) waiting at most `timeout_ms`, and disconnects. The bus status of the first step that
// failed, else of the call.
int call_peer(std::string_view object, std::string_view method, ubus::Bytes args, int timeout_ms);

// Connects on the default socket, broadcasts one event and disconnects. The bus status.
int broadcast_event(std::string_view type, ubus::Bytes data);

}  // namespace pkgd

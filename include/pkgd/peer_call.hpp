// Requests and events over a bus connection of their own. Worker processes never share the
// daemon's connection, and a short-lived one leaves nothing behind when the peer misbehaves.
#pragma once

#include <cstdint>
#include <string_view>

#include "ubus/blob.hpp"
#include "ubus/client.hpp"

namespace pkgd {

// One connection to one peer object, for a few requests in a row (a change and its commit).
// Every step, the lookup included, is bounded by the peer's time-out, so a broker that stops
// answering never holds the caller longer than the peer could.
class PeerSession {
public:
    explicit PeerSession(int timeout_ms) : timeout_ms_(timeout_ms) {}
    // Connects on the default socket and looks `object` up: the bus status.
    int open(std::string_view object);
    // Invokes `method` on the object, handing each reply's members to `on_reply`.
    int call(std::string_view method, ubus::Bytes args, ubus::DataCallback on_reply = nullptr);

private:
    ubus::Connection bus_;
    std::uint32_t id_ = 0;
    int timeout_ms_;
};

// open() then one call(): the bus status of the first step that failed, else of the call.
int call_peer(std::string_view object, std::string_view method, ubus::Bytes args, int timeout_ms,
              ubus::DataCallback on_reply = nullptr);

// Connects on the default socket, broadcasts one event and disconnects. The bus status.
int broadcast_event(std::string_view type, ubus::Bytes data);

}  // namespace pkgd

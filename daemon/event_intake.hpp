// The LCM events the daemon listens to: its workers report every step of an operation this way,
// and these events are how an operation's outcome reaches the registry.
#pragma once

#include <string_view>

#include "ubus/blob.hpp"
#include "ubus/client.hpp"

namespace pkgd {

// Listens to kLcmEventType on `ctx` with receive_event.
ubus::AddResult add_lcm_event_handler(ubus::Connection& ctx);

// One LCM event: its type and the members of its data table.
void receive_event(std::string_view type, ubus::Bytes data);

}  // namespace pkgd

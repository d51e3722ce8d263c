// The LCM events the daemon listens to: its workers report every step of an operation this way,
// and these events are how an operation's outcome reaches the registry.
#pragma once

#include <string_view>

#include "daemon/daemon_context.hpp"
#include "ubus/blob.hpp"
#include "ubus/client.hpp"

namespace pkgd {

// Listens to kLcmEventType on d.ctx with receive_event on `d`.
ubus::AddResult add_lcm_event_handler(daemon_context& d);

// One LCM event (its type and the members of its data table), applied to the package of d.s_pkgs
// it names: a new status, its unit data read again from d.files, or its removal.
void receive_event(daemon_context& d, std::string_view type, ubus::Bytes data);

}  // namespace pkgd

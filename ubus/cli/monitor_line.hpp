// The text line `ubus monitor` prints for one copy of bus traffic.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "ubus/blob.hpp"

namespace ubus_cli {

// One message the broker received or sent, as its monitor copy describes it.
struct MonitoredMessage {
    std::uint32_t client = 0;
    std::uint32_t peer = 0;
    bool sent = false;  // by the broker
    std::uint32_t seq = 0;
    std::uint32_t type = 0;
    ubus::Bytes body;  // the message's body attributes
};

// Reads the attributes of a MONITOR message; nullopt when the client or type is missing.
std::optional<MonitoredMessage> read_monitored(ubus::Bytes attributes);

// "-> 43afb446 #f7a6b046         invoke: {"objid":...}": direction, client, peer, the type
// name right-aligned in 14 columns, and the body's attributes as compact JSON under their names.
std::string monitor_line(const MonitoredMessage& m);

// The number of a message type name ("invoke", "add_object", ...), or nullopt.
std::optional<std::uint32_t> message_type_number(std::string_view name);

}  // namespace ubus_cli

// Printing what arrives from the bus.
#pragma once

#include <string_view>

#include "ubus/blob.hpp"

namespace ubus_cli {

// One event or notification: `{ "<name>": <compact JSON of the data> }` and a newline, written
// out at once so that a reader of a pipe sees each as it comes. The name is printed as it is,
// unescaped, the way the bus tools have always shown it.
void print_event(std::string_view name, ubus::Bytes data);

// One reply of a call: the members as a JSON object (indented, or compact for scripts) and a
// newline, written out at once.
void print_reply(ubus::Bytes data, bool compact);

// "Error while registering for event '<what>': <status text>", on stderr.
void print_registration_error(std::string_view what, int status);

}  // namespace ubus_cli

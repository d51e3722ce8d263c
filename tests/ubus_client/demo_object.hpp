// The "demo" object of the captures, as its owner registered it: the same methods and argument
// types (so the signature must come out byte for byte), with handlers that answer like the
// captured owner did.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "ubus/client.hpp"

namespace fake {

struct Demo {
    explicit Demo(ubus::Connection& bus);

    ubus::Connection& bus;
    std::shared_ptr<const ubus::ObjectType> type;
    std::vector<std::string> callers;         // "user/group" of each hello
    std::optional<ubus::DeferredReply> slow;  // the pending "slow" call
};

}  // namespace fake

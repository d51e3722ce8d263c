// The "demo" object of the captures, as its owner registered it: the same methods and argument
// types (so its signature comes out byte for byte), with handlers that answer as the captured
// owner did. "hello" greets, "types" echoes its arguments, "fail" answers the status given in
// "code", "slow" answers after "code" milliseconds (when there is a loop to wait in; otherwise it
// is held in `slow` for the test to complete), "fd" reads the descriptor it is sent and sends one
// holding "from-owner" back, "notify" notifies the subscribers ("code" < 0: without waiting for
// their answers).
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "ubus/client.hpp"

namespace bus_test {

struct Demo {
    explicit Demo(ubus::Connection& bus, ubus::Loop* loop = nullptr);

    std::shared_ptr<const ubus::ObjectType> type;
    std::vector<std::string> callers;           // "user/group" of each hello
    std::shared_ptr<ubus::DeferredReply> slow;  // the latest "slow" call, without a loop
};

}  // namespace bus_test

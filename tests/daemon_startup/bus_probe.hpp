// A test's own client on a sandbox gateway's bus: calls, waits for objects, and a monitor that
// records what pkgd asks of the broker.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sandbox/gateway.hpp"
#include "ubus/blob.hpp"
#include "ubus/client.hpp"

namespace pkgd::testing {

using namespace std::chrono_literals;

// A gateway with the project's broker and pkgd, its root named after the running test.
sandbox::GatewayOptions pkgd_gateway();

struct CallResult {
    int status = -1;
    std::vector<std::vector<std::uint8_t>> replies;  // the members of each DATA reply
    std::string json;                                // the first reply as compact JSON, "" if none
};

class BusProbe {
public:
    explicit BusProbe(const sandbox::Gateway& gw);
    bool connected() const { return bus_.connected(); }
    ubus::Connection& bus() { return bus_; }

    CallResult call(std::string_view path, std::string_view method,
                    const ubus::BlobBuf& args = ubus::BlobBuf());
    // The object's id once `path` is on the bus, polled until `timeout` passes.
    std::optional<std::uint32_t> wait_for_object(std::string_view path,
                                                 std::chrono::milliseconds timeout = 10s);
    bool wait_until_gone(std::string_view path, std::chrono::milliseconds timeout = 10s);
    bool has_object(std::string_view path);
    // The signature an object advertises, as JSON ("" when there is no such object).
    std::string signature(std::string_view path);
    // Holds `path` with an object of this client (no methods of interest).
    bool hold(std::string_view path);

private:
    ubus::Connection bus_;
};

// What a client asked of the broker, as a monitor sees it.
struct BrokerRequest {
    std::uint32_t client = 0;
    ubus::MsgType type = ubus::MsgType::Hello;
    std::string path;          // ADD_OBJECT: the object's path ("" for an anonymous object)
    std::uint32_t target = 0;  // INVOKE: the object called
    std::string method;        // INVOKE: the method
    std::string data;          // INVOKE: its arguments as JSON
};

class BusMonitor {
public:
    explicit BusMonitor(const sandbox::Gateway& gw);
    bool active() const { return active_; }
    // Handles monitor copies until `done` holds for what was recorded, or `timeout` passes.
    bool wait(const std::function<bool(const std::vector<BrokerRequest>&)>& done,
              std::chrono::milliseconds timeout = 10s);
    const std::vector<BrokerRequest>& requests() const { return requests_; }

private:
    ubus::Connection bus_;
    bool active_ = false;
    std::vector<BrokerRequest> requests_;
};

// Paths below the root, relative ("tmp/opkg-System"), of everything in the root's tree except
// what the sandbox itself keeps (its logs and run files).
std::vector<std::string> root_tree(const sandbox::Gateway& gw);

}  // namespace pkgd::testing

// What the sandbox tests share: gateways named after the running test, a client of their own on a
// gateway's bus (calls, objects, events), and the gateway simulator's state as text.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sandbox/gateway.hpp"
#include "ubus/client.hpp"

namespace gwtest {

using namespace std::chrono_literals;

// A gateway with the broker; its root is named after the running test (or suite).
sandbox::GatewayOptions named_gateway();

// A fixture whose tests share one gateway, made with the options `Options` gives.
template <sandbox::GatewayOptions (*Options)()>
class SharedGateway : public ::testing::Test {
protected:
    static void SetUpTestSuite() { gw_ = std::make_unique<sandbox::Gateway>(Options()); }
    static void TearDownTestSuite() { gw_.reset(); }
    void SetUp() override { ASSERT_TRUE(gw_->up()) << gw_->error(); }
    static inline std::unique_ptr<sandbox::Gateway> gw_;
};

struct Reply {
    int status = -1;
    std::vector<std::string> json;  // each DATA reply as compact JSON
    std::string first() const { return json.empty() ? "" : json.front(); }
};

class Client {
public:
    explicit Client(const sandbox::Gateway& gw);
    bool connected() const { return bus_.connected(); }
    ubus::Connection& bus() { return bus_; }

    // Looks `path` up and calls `method` with JSON arguments; a failed look-up is the status.
    Reply call(std::string_view path, std::string_view method, std::string_view json = "{}",
               int timeout_ms = 10000);
    bool has_object(std::string_view path);
    std::optional<std::uint32_t> wait_for_object(std::string_view path,
                                                 std::chrono::milliseconds timeout = 10s);
    bool wait_until_gone(std::string_view path, std::chrono::milliseconds timeout = 10s);
    bool hold(std::string_view path);  // registers an object of ours at `path`

    // Records the events matching `pattern` as "type data-as-JSON".
    bool listen(std::string_view pattern);
    // The events so far, once `count` have arrived or `timeout` has passed.
    const std::vector<std::string>& events(std::size_t count, std::chrono::milliseconds timeout = 10s);
    // The same read as an operation's story: each LCM event's code and each result's
    // "result <FaultCode>", in order of arrival.
    std::vector<std::string> story(std::size_t count, std::chrono::milliseconds timeout = 30s);

private:
    ubus::Connection bus_;
    std::vector<std::string> events_;
};

// One member of the simulator's state ("catalog", "datamodel", "requests") as compact JSON.
std::string sim_state(const sandbox::Gateway& gw, std::string_view member);
// The requests one of its peers ("catalog", "datamodel", "services") received, as "method data".
std::vector<std::string> sim_requests(const sandbox::Gateway& gw, std::string_view peer);

// `body` run inside the gateway (Gateway::run_inside); what it wrote. Fails the test unless it
// returned 0.
std::string run_inside(const sandbox::Gateway& gw, const std::function<int(std::string& out)>& body);

// A file's whole content ("" when it cannot be read).
std::string read_text(const std::filesystem::path& path);
// An executable shell script at `file` (a host path: an init script in a root being prepared).
void write_script(const std::filesystem::path& file, std::string_view body);

}  // namespace gwtest

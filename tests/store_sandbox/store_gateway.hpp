// What the store's sandbox tests share: a gateway with the broker (and the simulator when asked),
// store code run inside it as a worker would, and a bus listener on the host side.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "pkgd/identity.hpp"
#include "sandbox/gateway.hpp"
#include "ubus/client.hpp"
#include "ubus/json.hpp"

namespace store_sandbox {

inline std::string read_text(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// Runs `body` inside the gateway with the environment's identity fixed as the daemon fixes it at
// start-up (no EXECENV_INDEX: "System", and no catalog traffic). Fails the test when the child
// could not run or ended otherwise than with status 0; returns what it wrote.
inline std::string run_as_worker(const sandbox::Gateway& gw,
                                 const std::function<void(std::string& out)>& body,
                                 std::chrono::milliseconds timeout = std::chrono::seconds(30)) {
    const sandbox::CommandResult r = gw.run_inside(
        [&body](std::string& out) {
            ::unsetenv("EXECENV_INDEX");
            pkgd::package_init_env();
            body(out);
            return 0;
        },
        timeout);
    EXPECT_TRUE(r.ok()) << "exit " << r.exit_code << (r.timed_out ? " (timed out) " : " ") << r.err << r.out;
    return r.out;
}

// Collects the bus events of one pattern, as "type data-as-JSON".
class EventLog {
public:
    EventLog(const sandbox::Gateway& gw, std::string_view pattern) {
        ok_ = bus_.connect(gw.socket_path().string()) == ubus::kOk &&
              bus_.listen(pattern, [this](std::string_view type, ubus::Bytes data) {
                      std::string text(type);
                      text += ' ';
                      ubus::json_format_list(text, data, false);
                      events_.push_back(std::move(text));
                  }).status == ubus::kOk;
    }
    bool ok() const { return ok_; }

    // The events so far, after waiting until `count` have arrived or `timeout` passed.
    const std::vector<std::string>& wait_for(std::size_t count,
                                             std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        while (events_.size() < count && std::chrono::steady_clock::now() < deadline) bus_.dispatch(50);
        return events_;
    }
    // Whatever has arrived within a short while: for checking that nothing came.
    const std::vector<std::string>& settle() { return wait_for(SIZE_MAX, std::chrono::milliseconds(300)); }

private:
    ubus::Connection bus_;
    std::vector<std::string> events_;
    bool ok_ = false;
};

}  // namespace store_sandbox

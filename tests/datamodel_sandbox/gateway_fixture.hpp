// A fresh sandbox gateway with the broker and the simulator for each test, so that answers the
// simulator still owes one test (a slow agent) never reach the next.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "sandbox/gateway.hpp"
#include "ubus/blob.hpp"

namespace datamodel_sandbox {

class GatewayTest : public ::testing::Test {
protected:
    void SetUp() override;

    const sandbox::Gateway& gateway() const { return *gateway_; }

    // Runs `fn` in a process inside the root and returns what it wrote to its text.
    std::string inside(const std::function<int(std::string& out)>& fn);

    // The simulator's control object.
    void set_fault(std::string_view peer, std::string_view mode);
    void clear_request_log();
    // The requests the data-model agent received since the last reset, each as its method, a blank
    // and its message in compact JSON.
    std::vector<std::string> datamodel_requests();
    // The instance numbers the agent holds for `object_path`.
    std::vector<std::int32_t> instances(std::string_view object_path);

private:
    std::vector<std::uint8_t> sim_state();
    std::unique_ptr<sandbox::Gateway> gateway_;
};

}  // namespace datamodel_sandbox

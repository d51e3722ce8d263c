// Gateways for the sandbox's own tests: stand-ins replace the broker and pkgd, so that what is
// tested is the sandbox, not the programs it runs.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "sandbox/gateway.hpp"

namespace sandbox::testing {

// Named after the running test, so that a kept root (PKGD_SANDBOX_KEEP) is easy to find.
inline GatewayOptions fake_gateway() {
    GatewayOptions options;
    const auto* test = ::testing::UnitTest::GetInstance()->current_test_info();
    options.name = std::string(test->test_suite_name()) + "." + test->name();
    options.broker_path = FAKE_BROKER;
    return options;
}

inline GatewayOptions fake_gateway_with_pkgd() {
    GatewayOptions options = fake_gateway();
    options.pkgd = true;
    options.pkgd_path = FAKE_PKGD;
    return options;
}

inline std::string read_file(const std::filesystem::path& path) {
    std::ifstream in(path);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

}  // namespace sandbox::testing

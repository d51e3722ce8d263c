// A signed feed in a scratch directory for the sandbox tests of pkgd's operations: versions of the
// package "app" (a program and its init script), each listed in the index with the earlier ones.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "sandbox/gateway.hpp"

namespace gwtest {

class AppFeed {
public:
    explicit AppFeed(const std::filesystem::path& scratch);  // a fresh directory below `scratch`
    ~AppFeed();
    AppFeed(const AppFeed&) = delete;
    AppFeed& operator=(const AppFeed&) = delete;

    const std::filesystem::path& dir() const { return dir_; }
    // Builds `version` of "app", signed with the gateway's feed PKI: its URL on the HTTP server.
    std::string publish(const sandbox::Gateway& gw, const std::string& version);

private:
    std::filesystem::path dir_;
    std::vector<std::string> records_;
};

}  // namespace gwtest

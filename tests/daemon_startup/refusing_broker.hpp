// A minimal broker for one client that accepts object registrations and refuses every event
// registration: our real broker has no reason ever to refuse one.
#pragma once

#include <atomic>
#include <filesystem>
#include <thread>

#include "ubus/fd.hpp"

namespace pkgd::testing {

class RefusingBroker {
public:
    explicit RefusingBroker(const std::filesystem::path& socket);
    ~RefusingBroker();
    bool listening() const { return static_cast<bool>(listener_); }
    // An event registration arrived (and was refused).
    bool refused_a_registration() const { return refused_; }

private:
    void serve();
    ubus::UniqueFd listener_;
    std::atomic<bool> refused_{false};
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

}  // namespace pkgd::testing

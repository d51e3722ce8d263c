// Our broker (ubusd) running as a child process on a private socket, for the duration of a test.
#pragma once

#include <sys/stat.h>

#include <csignal>
#include <optional>
#include <stdexcept>
#include <string>

#include "child_process.hpp"
#include "poll.hpp"
#include "raw_client.hpp"

namespace bus_test {

class BrokerProcess {
public:
    BrokerProcess() {
        ::chmod(dir_.path().c_str(), 0755);  // reachable for tests that connect as another user
        start();
    }
    const std::string& socket() const { return socket_; }
    int stop(int signal = SIGTERM) { return broker_->stop(signal); }  // the wait status
    // Starts ubusd (again, after stop()) and waits until it accepts connections (it has no other
    // way to say it listens).
    void start() {
        broker_.emplace(UBUSD_PATH, std::vector<std::string>{"ubusd", "-s", socket_});
        const auto listening = [&] { return static_cast<bool>(connect_unix(socket_)); };
        if (!testsupport::poll_until(5s, [&] { return listening() || broker_->ended(); }, 1ms) || !listening())
            throw std::runtime_error(broker_->ended() ? "ubusd exited at start" : "ubusd did not start listening");
    }

private:
    TempDir dir_;
    std::string socket_ = dir_.path() + "/run/ubus.sock";  // the broker creates run/
    std::optional<Child> broker_;
};

}  // namespace bus_test

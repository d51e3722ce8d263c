// Our broker (ubusd) running as a child process on a private socket, for the duration of a test.
#pragma once

#include <csignal>
#include <string>

#include "child_process.hpp"

namespace bus_test {

class BrokerProcess {
public:
    BrokerProcess();  // starts ubusd and waits until it accepts connections
    const std::string& socket() const { return socket_; }
    int stop() { return broker_.stop(SIGTERM); }  // the wait status
    // True once the broker sleeps in its event loop: it has done all it can with what it was sent.
    bool wait_until_idle() const { return broker_.wait_until_serving(); }

private:
    TempDir dir_;
    std::string socket_ = dir_.path() + "/run/ubus.sock";  // the broker creates run/
    Child broker_{UBUSD_PATH, {"ubusd", "-s", socket_}};
};

}  // namespace bus_test

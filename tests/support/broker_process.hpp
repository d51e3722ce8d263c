// Our broker (ubusd) running as a child process on a private socket, for the duration of a test.
#pragma once

#include <sys/stat.h>

#include <csignal>
#include <stdexcept>
#include <string>

#include "child_process.hpp"
#include "poll.hpp"
#include "raw_client.hpp"

namespace bus_test {

class BrokerProcess {
public:
    // Starts ubusd and waits until it accepts connections (it has no other way to say it listens).
    BrokerProcess() {
        ::chmod(dir_.path().c_str(), 0755);  // reachable for tests that connect as another user
        const auto listening = [&] { return static_cast<bool>(connect_unix(socket_)); };
        if (!testsupport::poll_until(5s, [&] { return listening() || broker_.ended(); }, 10ms) || !listening())
            throw std::runtime_error(broker_.ended() ? "ubusd exited at start" : "ubusd did not start listening");
    }
    const std::string& socket() const { return socket_; }
    int stop() { return broker_.stop(SIGTERM); }  // the wait status

private:
    TempDir dir_;
    std::string socket_ = dir_.path() + "/run/ubus.sock";  // the broker creates run/
    Child broker_{UBUSD_PATH, {"ubusd", "-s", socket_}};
};

}  // namespace bus_test

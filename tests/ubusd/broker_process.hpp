// A broker running as a child process on a private socket, for the duration of a test.
#pragma once

#include <sys/types.h>

#include <string>

namespace ubusd_test {

class BrokerProcess {
public:
    BrokerProcess();  // starts ubusd and waits until it accepts connections
    ~BrokerProcess();
    BrokerProcess(const BrokerProcess&) = delete;
    BrokerProcess& operator=(const BrokerProcess&) = delete;

    const std::string& socket() const { return socket_; }
    // Sends SIGTERM and returns the wait status.
    int stop();

private:
    std::string dir_;
    std::string socket_;
    pid_t pid_ = -1;
};

}  // namespace ubusd_test

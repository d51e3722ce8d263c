#include "broker_process.hpp"

#include <sys/stat.h>
#include <sys/wait.h>

#include <chrono>
#include <stdexcept>
#include <thread>

#include "raw_client.hpp"

namespace bus_test {

BrokerProcess::BrokerProcess() {
    ::chmod(dir_.path().c_str(), 0755);  // reachable for tests that connect as another user
    // Readiness is polled: the broker has no other way to say it is listening.
    for (int i = 0; i < 500; ++i) {
        if (connect_unix(socket_)) return;
        siginfo_t ended{};
        if (::waitid(P_PID, static_cast<id_t>(broker_.pid()), &ended, WEXITED | WNOHANG | WNOWAIT) == 0 &&
            ended.si_pid != 0)
            throw std::runtime_error("ubusd exited at start");
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    throw std::runtime_error("ubusd did not start listening");
}

}  // namespace bus_test

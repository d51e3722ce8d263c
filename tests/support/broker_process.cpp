#include "broker_process.hpp"

#include <sys/stat.h>

#include <stdexcept>

#include "poll.hpp"
#include "raw_client.hpp"

namespace bus_test {

BrokerProcess::BrokerProcess() {
    ::chmod(dir_.path().c_str(), 0755);  // reachable for tests that connect as another user
    // Readiness is polled: the broker has no other way to say it is listening.
    const auto listening = [&] { return static_cast<bool>(connect_unix(socket_)); };
    if (!testsupport::poll_until(5s, [&] { return listening() || broker_.ended(); }, 10ms) || !listening())
        throw std::runtime_error(broker_.ended() ? "ubusd exited at start" : "ubusd did not start listening");
}

}  // namespace bus_test

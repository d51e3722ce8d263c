// A bus connection whose incoming calls are handled on a thread of its own, so that the test's
// thread can call the objects registered on it.
#pragma once

#include <atomic>
#include <string>
#include <thread>

#include "ubus/client.hpp"

namespace bus_test {

class ServingThread {
public:
    explicit ServingThread(const std::string& socket);  // connects, or throws
    ~ServingThread() { stop(); }
    ServingThread(const ServingThread&) = delete;
    ServingThread& operator=(const ServingThread&) = delete;

    // From start() until stop() the connection belongs to the serving thread and its handlers.
    ubus::Connection& bus() { return bus_; }
    // Registers `path` with these methods (before start()); throws when the broker refuses.
    std::uint32_t add(std::string_view path, std::initializer_list<ubus::MethodDef> methods);
    void start();
    void stop();

private:
    ubus::Connection bus_;
    std::atomic<bool> stopping_ = false;
    std::thread thread_;
};

}  // namespace bus_test

// A bus connection whose incoming calls are handled on a thread of its own, so that the test's
// thread can call the objects registered on it.
#pragma once

#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>

#include "ubus/client.hpp"

namespace bus_test {

class ServingThread {
public:
    explicit ServingThread(const std::string& socket) {  // connects, or throws
        if (bus_.connect(socket) != ubus::kOk) throw std::runtime_error("cannot connect to " + socket);
    }
    ~ServingThread() { stop(); }
    ServingThread(const ServingThread&) = delete;
    ServingThread& operator=(const ServingThread&) = delete;

    // From start() until stop() the connection belongs to the serving thread and its handlers.
    ubus::Connection& bus() { return bus_; }
    // Registers `path` with these methods (before start()); throws when the broker refuses.
    std::uint32_t add(std::string_view path, std::initializer_list<ubus::MethodDef> methods) {
        const ubus::AddResult added = bus_.add_object(path, ubus::ObjectType::make(methods));
        if (added.status != ubus::kOk) throw std::runtime_error("cannot register " + std::string(path));
        return added.id;
    }
    void start() {
        stopping_ = false;
        // The wait per round only bounds how long stop() takes.
        thread_ = std::thread([this] {
            while (!stopping_ && bus_.dispatch(20) == ubus::kOk) {
            }
        });
    }
    void stop() {
        stopping_ = true;
        if (thread_.joinable()) thread_.join();
    }

private:
    ubus::Connection bus_;
    std::atomic<bool> stopping_ = false;
    std::thread thread_;
};

}  // namespace bus_test

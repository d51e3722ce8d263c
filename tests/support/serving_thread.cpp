#include "serving_thread.hpp"

#include <stdexcept>

namespace bus_test {

ServingThread::ServingThread(const std::string& socket) {
    if (bus_.connect(socket) != ubus::kOk) throw std::runtime_error("cannot connect to " + socket);
}

std::uint32_t ServingThread::add(std::string_view path, std::initializer_list<ubus::MethodDef> methods) {
    const ubus::AddResult added = bus_.add_object(path, ubus::ObjectType::make(methods));
    if (added.status != ubus::kOk) throw std::runtime_error("cannot register " + std::string(path));
    return added.id;
}

void ServingThread::start() {
    stopping_ = false;
    // The wait per round only bounds how long stop() takes.
    thread_ = std::thread([this] {
        while (!stopping_ && bus_.dispatch(20) == ubus::kOk) {
        }
    });
}

void ServingThread::stop() {
    stopping_ = true;
    if (thread_.joinable()) thread_.join();
}

}  // namespace bus_test

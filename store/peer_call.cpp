#include "peer_call.hpp"

#include <cstdint>

#include "ubus/client.hpp"

namespace pkgd {
namespace {

// Lookups and event sends are the library's own requests: bound them like the call itself, so a
// broker that stops answering never holds a worker longer than the peer's time-out.
constexpr int kEventTimeoutMs = 5000;

}  // namespace

int call_peer(std::string_view object, std::string_view method, ubus::Bytes args, int timeout_ms) {
    ubus::Connection bus;
    bus.set_request_timeout(timeout_ms);
    if (const int status = bus.connect(); status != ubus::kOk) return status;
    std::uint32_t id = 0;
    if (const int status = bus.lookup_id(object, id); status != ubus::kOk) return status;
    return bus.invoke(id, method, args, nullptr, timeout_ms);
}

int broadcast_event(std::string_view type, ubus::Bytes data) {
    ubus::Connection bus;
    bus.set_request_timeout(kEventTimeoutMs);
    if (const int status = bus.connect(); status != ubus::kOk) return status;
    return bus.send_event(type, data);
}

}  // namespace pkgd

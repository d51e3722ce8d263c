#include "pkgd/peer_call.hpp"

namespace pkgd {
namespace {

// Event sends are the library's own requests: bound them, so a broker that stops answering
// never holds a worker for long.
constexpr int kEventTimeoutMs = 5000;

}  // namespace

int PeerSession::open(std::string_view object) {
    bus_.set_request_timeout(timeout_ms_);
    if (const int status = bus_.connect(); status != ubus::kOk) return status;
    return bus_.lookup_id(object, id_);
}

int PeerSession::call(std::string_view method, ubus::Bytes args, ubus::DataCallback on_reply) {
    return bus_.invoke(id_, method, args, on_reply, timeout_ms_);
}

int call_peer(std::string_view object, std::string_view method, ubus::Bytes args, int timeout_ms,
              ubus::DataCallback on_reply) {
    PeerSession peer(timeout_ms);
    if (const int status = peer.open(object); status != ubus::kOk) return status;
    return peer.call(method, args, on_reply);
}

int broadcast_event(std::string_view type, ubus::Bytes data) {
    ubus::Connection bus;
    bus.set_request_timeout(kEventTimeoutMs);
    if (const int status = bus.connect(); status != ubus::kOk) return status;
    return bus.send_event(type, data);
}

}  // namespace pkgd

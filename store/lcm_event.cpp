#include "pkgd/peer_call.hpp"
#include "pkgd/lcm_events.hpp"

namespace pkgd {

void lcm_event_message(ubus::BlobBuf& msg, std::int32_t code, std::string_view name,
                       std::string_view body_key, std::string_view body_value) {
    const std::size_t header = msg.open_table("Header");
    msg.add_i32("Code", code);
    msg.add_string("Name", name);
    msg.close(header);
    if (body_key.empty()) return;
    const std::size_t body = msg.open_table("Body");
    msg.add_string(body_key, body_value);
    msg.close(body);
}

void package_event(std::int32_t code, std::string_view name, std::string_view body_key,
                   std::string_view body_value) {
    ubus::BlobBuf msg;
    lcm_event_message(msg, code, name, body_key, body_value);
    broadcast_event(kLcmEventType, msg.members());
}

}  // namespace pkgd

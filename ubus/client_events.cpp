// Events: sending them, and listener objects with their patterns. Both go through the broker's
// event object.
#include "client_state.hpp"

namespace ubus {

int Connection::send_event(std::string_view type, Bytes data) {
    detail::ConnectionState& s = *st_;
    detail::PendingRequest req;
    s.begin_request(MsgType::Invoke, kEventObject, req);
    s.out.put_u32(kAttrObjId, kEventObject);
    s.out.put_string(kAttrMethod, "send");
    const std::size_t args = s.out.nest_open(kAttrData);
    s.out.add_string("id", type);
    const std::size_t table = s.out.open_table("data");
    s.out.add_members(data);
    s.out.close(table);
    s.out.close(args);
    return s.send_and_wait(req, s.request_timeout_ms);
}

AddResult Connection::add_event_handler(EventHandler handler) {
    if (!handler) return {kInvalidArgument, 0};
    // Deliveries are calls on the listener whose method is the event type. Answering them is
    // harmless (the broker drops the status) and keeps every call path alike.
    return add_anonymous_object([h = std::move(handler)](Request& req) {
        h(req.method(), req.args());
        return kOk;
    });
}

int Connection::register_event(std::uint32_t listener, std::string_view pattern) {
    detail::ConnectionState& s = *st_;
    detail::PendingRequest req;
    s.begin_request(MsgType::Invoke, kEventObject, req);
    s.out.put_u32(kAttrObjId, kEventObject);
    s.out.put_string(kAttrMethod, "register");
    const std::size_t args = s.out.nest_open(kAttrData);
    s.out.add_i32("object", static_cast<std::int32_t>(listener));
    s.out.add_string("pattern", pattern);
    s.out.close(args);
    return s.send_and_wait(req, s.request_timeout_ms);
}

AddResult Connection::listen(std::string_view pattern, EventHandler handler) {
    const AddResult listener = add_event_handler(std::move(handler));
    if (listener.status != kOk) return listener;
    const int status = register_event(listener.id, pattern);
    if (status == kOk) return listener;
    remove_object(listener.id);
    return {status, 0};
}

}  // namespace ubus

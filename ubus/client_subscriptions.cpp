// Subscriptions and notifications: subscriber objects, subscribing to other objects, telling our
// own objects' subscribers, and the broker's notices about both.
#include "client_state.hpp"

namespace ubus {

namespace detail {

void ConnectionState::handle_subscriber_notice(const MsgAttrs& attrs) {
    const auto it = objects.find(attrs.u32(kAttrObjId));
    if (it == objects.end() || !attrs.has(kAttrActive)) return;
    const std::shared_ptr<LocalObject> obj = it->second;  // the callback may remove it
    obj->has_subscribers = attrs.u8(kAttrActive) != 0;
    if (obj->on_subscribers) obj->on_subscribers(obj->has_subscribers);
}

void ConnectionState::handle_unsubscribe(const MsgAttrs& attrs) {
    const auto it = objects.find(attrs.u32(kAttrObjId));
    if (it == objects.end() || !attrs.has(kAttrTarget)) return;
    const std::shared_ptr<LocalObject> obj = it->second;
    if (obj->on_target_removed) obj->on_target_removed(attrs.u32(kAttrTarget));
}

}  // namespace detail

namespace {
int subscription_request(detail::ConnectionState& s, MsgType type, std::uint32_t subscriber,
                         std::uint32_t target) {
    detail::PendingRequest req;
    s.begin_request(type, 0, req);
    s.out.put_u32(kAttrObjId, subscriber);
    s.out.put_u32(kAttrTarget, target);
    return s.send_and_wait(req, s.request_timeout_ms);
}
}  // namespace

AddResult Connection::add_subscriber(MethodHandler on_notification,
                                     std::function<void(std::uint32_t)> on_target_removed) {
    if (!on_notification) return {kInvalidArgument, 0};
    auto obj = std::make_shared<detail::LocalObject>();
    obj->on_target_removed = std::move(on_target_removed);
    return st_->add_object({}, ObjectType::catch_all(std::move(on_notification)), std::move(obj));
}

int Connection::subscribe(std::uint32_t subscriber, std::uint32_t target) {
    return subscription_request(*st_, MsgType::Subscribe, subscriber, target);
}

int Connection::unsubscribe(std::uint32_t subscriber, std::uint32_t target) {
    return subscription_request(*st_, MsgType::Unsubscribe, subscriber, target);
}

bool Connection::has_subscribers(std::uint32_t object) const {
    const auto it = st_->objects.find(object);
    return it != st_->objects.end() && it->second->has_subscribers;
}

int Connection::notify(std::uint32_t object, std::string_view name, Bytes data, int timeout_ms) {
    detail::ConnectionState& s = *st_;
    detail::PendingRequest req;
    req.collect_subscribers = true;
    s.begin_request(MsgType::Notify, object, req);
    s.out.put_u32(kAttrObjId, object);
    s.out.put_string(kAttrMethod, name);
    s.out.put_raw(kAttrData, data);
    if (timeout_ms < 0) {
        s.out.put_u8(kAttrNoReply, 1);
        return s.send();
    }
    return s.send_and_wait(req, timeout_ms);
}

}  // namespace ubus

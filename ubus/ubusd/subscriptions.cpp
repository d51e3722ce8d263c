// Subscriptions: SUBSCRIBE, UNSUBSCRIBE and NOTIFY, and what owners and subscribers are told.
#include <algorithm>

#include "ubusd/broker.hpp"

namespace ubusd {

using ubus::Frame;
using ubus::MsgAttrs;
using ubus::MsgType;

namespace {
bool subscribed(const Object& s, const Object& t) {
    return std::find(t.subscribers.begin(), t.subscribers.end(), &s) != t.subscribers.end();
}
}  // namespace

void Broker::on_subscribe(Client& c, const Frame& f) {
    const MsgAttrs a = f.attrs();
    int status = ubus::kOk;
    Object* s = nullptr;
    Object* t = nullptr;
    if (!a.has(ubus::kAttrObjId) || !a.has(ubus::kAttrTarget))
        status = ubus::kInvalidArgument;
    else if (!(s = find_object(a.u32(ubus::kAttrObjId))))
        status = ubus::kNotFound;
    else if (s->owner != &c)
        status = ubus::kInvalidArgument;
    else if (!(t = find_object(a.u32(ubus::kAttrTarget))))
        status = ubus::kNotFound;
    else if (t->owner == &c)
        status = ubus::kInvalidArgument;
    else if (!subscribed(*s, *t)) {
        t->subscribers.push_back(s);
        s->targets.push_back(t);
        // The owner may start producing notifications only now that someone listens.
        if (t->subscribers.size() == 1) tell_active(*t, true);
    }
    reply_status(c, f.hdr, status);
}

void Broker::on_unsubscribe(Client& c, const Frame& f) {
    const MsgAttrs a = f.attrs();
    if (!a.has(ubus::kAttrObjId) || !a.has(ubus::kAttrTarget)) {
        reply_status(c, f.hdr, ubus::kInvalidArgument);
        return;
    }
    Object* s = find_object(a.u32(ubus::kAttrObjId));
    Object* t = find_object(a.u32(ubus::kAttrTarget));
    if (!s || !t || !subscribed(*s, *t)) {
        reply_status(c, f.hdr, ubus::kNotFound);
        return;
    }
    if (s->owner != &c) {
        reply_status(c, f.hdr, ubus::kInvalidArgument);
        return;
    }
    unsubscribe(*s, *t);
    reply_status(c, f.hdr, ubus::kOk);
}

void Broker::unsubscribe(Object& subscriber, Object& target) {
    std::erase(subscriber.targets, &target);
    std::erase(target.subscribers, &subscriber);
    if (target.subscribers.empty()) tell_active(target, false);
}

void Broker::tell_active(Object& target, bool active) {
    reply_.start(MsgType::Notify, ++target.seq, 0);
    reply_.put_u32(ubus::kAttrObjId, target.id);
    reply_.put_u8(ubus::kAttrActive, active ? 1 : 0);
    send(*target.owner, reply_.frame());
}

void Broker::tell_unsubscribed(Object& subscriber, const Object& target) {
    reply_.start(MsgType::Unsubscribe, ++subscriber.seq, 0);
    reply_.put_u32(ubus::kAttrObjId, subscriber.id);
    reply_.put_u32(ubus::kAttrTarget, target.id);
    send(*subscriber.owner, reply_.frame());
}

void Broker::on_notify(Client& c, const Frame& f) {
    const MsgAttrs a = f.attrs();
    if (!a.has(ubus::kAttrObjId) || !a.has(ubus::kAttrMethod)) {
        reply_status(c, f.hdr, ubus::kInvalidArgument);
        return;
    }
    const Object* t = find_object(a.u32(ubus::kAttrObjId));
    if (!t) {
        reply_status(c, f.hdr, ubus::kNotFound);
        return;
    }
    if (t->owner != &c) {
        reply_status(c, f.hdr, ubus::kPermissionDenied);
        return;
    }
    const bool no_reply = a.u8(ubus::kAttrNoReply) != 0;

    // One INVOKE per subscriber, from the owner's client: built once, OBJID patched per copy.
    // Subscribers answer the owner directly (their replies are routed like call replies).
    fanout_.start(MsgType::Invoke, f.hdr.seq, c.id);
    if (no_reply) fanout_.put_u8(ubus::kAttrNoReply, 1);
    const std::size_t objid_at = fanout_.all().size() + 4;
    fanout_.put_u32(ubus::kAttrObjId, 0);
    fanout_.put_raw(ubus::kAttrMethod, a[ubus::kAttrMethod].payload());
    fanout_.put_string(ubus::kAttrUser, c.peer.user);
    fanout_.put_string(ubus::kAttrGroup, c.peer.group);
    if (a.has(ubus::kAttrData)) fanout_.put_raw(ubus::kAttrData, a.data());
    if (fanout_.all().size() - ubus::kHeaderLen > ubus::kMaxBodyLen) {
        reply_status(c, f.hdr, ubus::kInvalidArgument);
        return;
    }
    const std::span<const std::uint8_t> frame = fanout_.frame();
    std::uint8_t* msg = fanout_.all().data();
    for (const Object* s : t->subscribers) {
        ubus::wire::put32(msg + objid_at, s->id);
        send(*s->owner, frame);
    }
    if (no_reply) return;

    // The owner waits for this, then for one reply from each subscriber listed.
    reply_.start(MsgType::Status, f.hdr.seq, f.hdr.peer);
    reply_.put_u32(ubus::kAttrObjId, t->id);
    const std::size_t list = reply_.nest_open(ubus::kAttrSubscribers);
    for (const Object* s : t->subscribers) reply_.put_u32(0, s->id);
    reply_.close(list);
    reply_.put_u32(ubus::kAttrStatus, ubus::kOk);
    send(c, reply_.frame());
}

}  // namespace ubusd

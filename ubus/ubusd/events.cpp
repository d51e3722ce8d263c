// Events: listener registration and event sending through object 1, and the broker's own
// object lifecycle events.
#include "ubusd/broker.hpp"

namespace ubusd {

using ubus::MsgAttrs;
using ubus::MsgType;
using ubus::Type;

int Broker::event_call(Client& c, std::string_view method, const MsgAttrs& a) {
    if (method == "register") return register_listener(c, a);
    if (method == "send") return send_event(c, a);
    return ubus::kInvalidCommand;
}

int Broker::register_listener(Client& c, const MsgAttrs& a) {
    static constexpr ubus::Policy kPolicy[] = {{"object", Type::Int32}, {"pattern", Type::String}};
    if (!a.has(ubus::kAttrData)) return ubus::kInvalidArgument;
    const auto args = ubus::parse(kPolicy, a.data());
    if (!args[0] || !args[1]) return ubus::kInvalidArgument;
    const std::uint32_t id = args[0].as_u32();
    if (id < IdSource::kFirstId) return ubus::kPermissionDenied;
    Object* o = find_object(id);
    if (!o) return ubus::kNotFound;
    if (o->owner != &c) return ubus::kPermissionDenied;
    const std::string_view pattern = args[1].as_string();
    if (pattern.empty()) return ubus::kPermissionDenied;
    if (listeners_.add(pattern, o)) o->patterns.emplace_back(pattern);
    return ubus::kOk;
}

int Broker::send_event(Client& c, const MsgAttrs& a) {
    static constexpr ubus::Policy kPolicy[] = {{"id", Type::String}, {"data", Type::Table}};
    if (!a.has(ubus::kAttrData)) return ubus::kInvalidArgument;
    const auto args = ubus::parse(kPolicy, a.data());
    if (!args[0] || !args[1]) return ubus::kInvalidArgument;
    const std::string_view name = args[0].as_string();
    // The "ubus." names belong to the broker: nobody may fake an object appearing or leaving.
    if (name.starts_with("ubus.")) return ubus::kPermissionDenied;
    broadcast(&c, name, args[1].data());
    return ubus::kOk;
}

void Broker::broadcast(const Client* sender, std::string_view name, ubus::Bytes members) {
    if (listeners_.empty()) return;
    // Built once; each recipient's copy differs only in its seq and OBJID, patched in place.
    fanout_.start(MsgType::Invoke, 0, 0);
    const std::size_t objid_at = fanout_.all().size() + 4;
    fanout_.put_u32(ubus::kAttrObjId, 0);
    fanout_.put_string(ubus::kAttrMethod, name);
    fanout_.put_raw(ubus::kAttrData, members);
    const std::span<const std::uint8_t> frame = fanout_.frame();
    std::uint8_t* msg = fanout_.all().data();

    const std::uint64_t event = ++event_count_;
    listeners_.for_each_match(name, [&](Object* o) {
        if (o->last_event == event) return;
        o->last_event = event;
        // A client does not hear its own events.
        if (o->owner == sender) return;
        ubus::wire::put16(msg + 2, ++event_seq_);
        ubus::wire::put32(msg + objid_at, o->id);
        send(*o->owner, frame);
    });
}

void Broker::object_event(std::string_view name, const Object& o) {
    if (listeners_.empty()) return;
    event_data_.reset();
    event_data_.add_i32("id", static_cast<std::int32_t>(o.id));
    event_data_.add_string("path", *o.path);
    broadcast(nullptr, name, event_data_.members());
}

void Broker::forget_patterns(Object& o) {
    for (const std::string& p : o.patterns) listeners_.remove(p, &o);
    o.patterns.clear();
}

}  // namespace ubusd

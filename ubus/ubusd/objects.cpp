// The object registry: PING, LOOKUP, ADD_OBJECT and REMOVE_OBJECT.
#include <algorithm>

#include "ubusd/broker.hpp"

namespace ubusd {

using ubus::Frame;
using ubus::MsgAttrs;
using ubus::MsgType;

namespace {
// Unsent lookup replies a client may have before the listing waits for it.
constexpr std::size_t kLookupBacklog = 64 * 1024;
}  // namespace

void Broker::on_ping(Client& c, const Frame& f) {
    // The body comes back unchanged, and so does the header apart from the type (a client
    // speaking another version sees its own version echoed).
    std::uint8_t hdr[ubus::kHeaderLen];
    std::copy_n(f.bytes.data(), ubus::kHeaderLen, hdr);
    hdr[1] = static_cast<std::uint8_t>(MsgType::Data);
    const iovec parts[] = {{hdr, sizeof(hdr)}, {const_cast<std::uint8_t*>(f.body().data()), f.body().size()}};
    send(c, parts);
    reply_status(c, f.hdr, ubus::kOk);
}

void Broker::send_lookup_entry(Client& to, const ubus::MsgHeader& req, const Object& o) {
    reply_.start(MsgType::Data, req.seq, req.peer);
    reply_.put_string(ubus::kAttrObjPath, *o.path);
    reply_.put_u32(ubus::kAttrObjId, o.id);
    reply_.put_u32(ubus::kAttrObjType, o.type->id);
    reply_.put_raw(ubus::kAttrSignature, o.type->signature);
    send(to, reply_.frame());
}

void Broker::on_lookup(Client& c, const Frame& f) {
    const MsgAttrs a = f.attrs();
    if (!a.has(ubus::kAttrObjPath)) {
        list_paths(c, {f.hdr, "", true, false, ""});
        return;
    }
    const std::string_view path = a.str(ubus::kAttrObjPath);
    if (path.empty()) {
        reply_status(c, f.hdr, ubus::kInvalidArgument);
        return;
    }
    if (path.back() == '*') {
        const std::string_view prefix = path.substr(0, path.size() - 1);
        list_paths(c, {f.hdr, std::string(prefix), false, false, std::string(prefix)});
        return;
    }
    // Typeless objects hold their path but are never listed; naming one still counts as found.
    auto it = paths_.find(path);
    if (it != paths_.end() && it->second->type) send_lookup_entry(c, f.hdr, *it->second);
    reply_status(c, f.hdr, it != paths_.end() ? ubus::kOk : ubus::kNotFound);
}

void Broker::list_paths(Client& c, Client::PendingLookup state) {
    for (auto it = paths_.lower_bound(state.resume);
         it != paths_.end() && it->first.starts_with(state.prefix); ++it) {
        // Listing everything to a client that does not keep up would overflow its queue and
        // lose entries; carry on once it has taken what it has.
        if (c.out.size() > kLookupBacklog) {
            state.resume = it->first;
            c.lookup = std::move(state);
            update_interest(c);
            return;
        }
        state.found = true;
        if (it->second->type) send_lookup_entry(c, state.req, *it->second);
    }
    reply_status(c, state.req, state.all || state.found ? ubus::kOk : ubus::kNotFound);
}

ObjectType* Broker::new_type(ubus::Attr signature) {
    // One table per method, named after it. A signature with an entry that is not a well-formed
    // named value describes nothing a caller could use: the object is registered without a type.
    for (ubus::Attr method : signature.nested())
        if (!method.valid(true)) return nullptr;
    const std::uint32_t id = ids_.next([this](std::uint32_t t) { return types_.contains(t); });
    ObjectType& t = types_[id];
    t.id = id;
    t.signature.assign(signature.payload().begin(), signature.payload().end());
    return &t;
}

void Broker::on_add_object(Client& c, const Frame& f) {
    const MsgAttrs a = f.attrs();
    const bool has_path = a.has(ubus::kAttrObjPath);
    const std::string_view path = a.str(ubus::kAttrObjPath);
    if (has_path && paths_.contains(path)) {
        reply_status(c, f.hdr, ubus::kInvalidArgument);
        return;
    }

    ObjectType* type = nullptr;
    if (a.has(ubus::kAttrObjType)) {
        // An unknown type id is not an error: the object simply has no type.
        auto it = types_.find(a.u32(ubus::kAttrObjType));
        if (it != types_.end()) type = &it->second;
    } else if (a.has(ubus::kAttrSignature)) {
        type = new_type(a[ubus::kAttrSignature]);
    }

    const std::uint32_t id = ids_.next([this](std::uint32_t o) { return objects_.contains(o); });
    Object& o = objects_[id];
    o.id = id;
    o.owner = &c;
    o.type = type;
    if (type) ++type->users;
    c.objects.push_back(&o);
    if (has_path) {
        auto it = paths_.emplace(std::string(path), &o).first;
        o.path = &it->first;
        // Listeners (ubus wait_for) learn about the object no later than its owner does.
        object_event("ubus.object.add", o);
    }

    reply_.start(MsgType::Data, f.hdr.seq, f.hdr.peer);
    reply_.put_u32(ubus::kAttrObjId, id);
    if (type && a.has(ubus::kAttrSignature)) reply_.put_u32(ubus::kAttrObjType, type->id);
    send(c, reply_.frame());
    reply_status(c, f.hdr, ubus::kOk);
}

void Broker::on_remove_object(Client& c, const Frame& f) {
    const MsgAttrs a = f.attrs();
    if (!a.has(ubus::kAttrObjId)) {
        reply_status(c, f.hdr, ubus::kInvalidArgument);
        return;
    }
    Object* o = find_object(a.u32(ubus::kAttrObjId));
    if (!o) {
        reply_status(c, f.hdr, ubus::kNotFound);
        return;
    }
    if (o->owner != &c) {
        reply_status(c, f.hdr, ubus::kPermissionDenied);
        return;
    }
    const std::uint32_t id = o->id;
    const std::uint32_t released_type = remove_object(*o);

    reply_.start(MsgType::Data, f.hdr.seq, f.hdr.peer);
    reply_.put_u32(ubus::kAttrObjId, id);
    // The owner forgets a type id only when told it is gone.
    if (released_type) reply_.put_u32(ubus::kAttrObjType, released_type);
    send(c, reply_.frame());
    reply_status(c, f.hdr, ubus::kOk);
}

std::uint32_t Broker::remove_object(Object& o) {
    while (!o.targets.empty()) unsubscribe(o, *o.targets.back());
    while (!o.subscribers.empty()) {
        Object& s = *o.subscribers.back();
        o.subscribers.pop_back();
        std::erase(s.targets, &o);
        tell_unsubscribed(s, o);
    }
    forget_patterns(o);
    if (o.path) {
        object_event("ubus.object.remove", o);
        paths_.erase(paths_.find(*o.path));
    }

    std::uint32_t released = 0;
    if (o.type && --o.type->users == 0) {
        released = o.type->id;
        types_.erase(released);
    }
    std::erase(o.owner->objects, &o);
    objects_.erase(o.id);
    return released;
}

}  // namespace ubusd

// Calling other objects: lookups and method invocation.
#include "client_state.hpp"

namespace ubus {

namespace {
// One LOOKUP; `path` null asks for every object.
int lookup_request(detail::ConnectionState& s, const std::string_view* path,
                   FunctionRef<void(const MsgAttrs&)> on_data) {
    detail::PendingRequest req;
    req.on_data = on_data;
    s.begin_request(MsgType::Lookup, 0, req);
    if (path) s.out.put_string(kAttrObjPath, *path);
    return s.send_and_wait(req, s.request_timeout_ms);
}

int lookup_objects(detail::ConnectionState& s, const std::string_view* path, LookupCallback on_object) {
    auto on_data = [&](const MsgAttrs& a) {
        // An entry missing any of these does not describe a usable object.
        if (!a.has(kAttrObjId) || !a.has(kAttrObjPath) || !a.has(kAttrObjType)) return;
        if (on_object)
            on_object(ObjectInfo{a.str(kAttrObjPath), a.u32(kAttrObjId), a.u32(kAttrObjType),
                                 a[kAttrSignature].payload()});
    };
    return lookup_request(s, path, on_data);
}
}  // namespace

int Connection::lookup(std::string_view path, LookupCallback on_object) {
    return lookup_objects(*st_, &path, on_object);
}

int Connection::lookup_all(LookupCallback on_object) {
    return lookup_objects(*st_, nullptr, on_object);
}

int Connection::lookup_id(std::string_view path, std::uint32_t& id) {
    id = 0;
    auto on_data = [&](const MsgAttrs& a) {
        if (a.has(kAttrObjId)) id = a.u32(kAttrObjId);
    };
    return lookup_request(*st_, &path, on_data);
}

int Connection::invoke(std::uint32_t object, std::string_view method, Bytes args, DataCallback on_data,
                       int timeout_ms, CallFds fds) {
    detail::ConnectionState& s = *st_;
    auto on_reply = [&](const MsgAttrs& a) {
        if (on_data && a.has(kAttrData)) on_data(a.data());
    };
    detail::PendingRequest req;
    req.on_data = on_reply;
    req.reply_fd = fds.received;
    if (fds.received) fds.received->reset();  // what it holds afterwards came with this call
    // The peer is the object: the owner's replies come back with it, and so do the broker's
    // own errors, which echo the request's peer.
    s.begin_request(MsgType::Invoke, object, req);
    s.out.put_u32(kAttrObjId, object);
    s.out.put_string(kAttrMethod, method);
    s.out.put_raw(kAttrData, args);
    return s.send_and_wait(req, timeout_ms < 0 ? 0 : timeout_ms, fds.send);
}

int Connection::invoke_async(std::uint32_t object, std::string_view method, Bytes args,
                             AsyncCallback on_done, int timeout_ms) {
    detail::ConnectionState& s = *st_;
    auto call = std::make_unique<detail::AsyncCall>();
    call->on_done = std::move(on_done);
    s.begin_request(MsgType::Invoke, object, call->req);
    s.out.put_u32(kAttrObjId, object);
    s.out.put_string(kAttrMethod, method);
    s.out.put_raw(kAttrData, args);
    return s.start_async(std::move(call), timeout_ms);
}

}  // namespace ubus

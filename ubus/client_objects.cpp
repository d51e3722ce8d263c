// Objects owned by a connection: registration with type-id reuse, removal, and answering the
// method calls the broker forwards to them.
#include "client_state.hpp"

namespace ubus {

namespace detail {

AddResult ConnectionState::add_object(std::string_view path, std::shared_ptr<const ObjectType> type,
                                      std::shared_ptr<LocalObject> obj) {
    const bool typed = type->has_signature();
    std::uint32_t type_id = 0;
    AddResult res;
    auto on_data = [&](const MsgAttrs& a) {
        if (a.has(kAttrObjId)) res.id = a.u32(kAttrObjId);
        if (a.has(kAttrObjType)) type_id = a.u32(kAttrObjType);
    };
    PendingRequest req;
    req.on_data = on_data;
    begin_request(MsgType::AddObject, 0, req);
    if (typed) {
        // The first object of a type describes it; later ones only name the id it was given.
        out.put_string(kAttrObjPath, path);
        const auto known = types.find(type.get());
        if (known != types.end() && known->second.id != 0)
            out.put_u32(kAttrObjType, known->second.id);
        else
            out.put_raw(kAttrSignature, type->signature());
    }
    res.status = send_and_wait(req, request_timeout_ms);
    if (res.status == kOk && res.id == 0) res.status = kNoData;  // accepted, but no id to use it by
    if (res.status != kOk) return {res.status, 0};

    if (typed) {
        TypeRef& ref = types[type.get()];
        if (type_id != 0) ref.id = type_id;
        ++ref.objects;
        obj->path.assign(path);
    }
    obj->type = std::move(type);
    objects[res.id] = std::move(obj);
    return res;
}

void ConnectionState::release_type(const ObjectType* type, bool released_by_broker) {
    const auto it = types.find(type);
    if (it == types.end()) return;
    if (released_by_broker) it->second.id = 0;
    if (it->second.objects > 0) --it->second.objects;
    if (it->second.objects == 0) types.erase(it);
}

void ConnectionState::handle_invoke(MsgHeader hdr, const MsgAttrs& attrs, UniqueFd passed) {
    if (!attrs.has(kAttrObjId)) return;  // nothing to answer on behalf of
    const ReplyTarget to{hdr.seq, hdr.peer, attrs.u32(kAttrObjId), attrs.u8(kAttrNoReply) != 0};
    auto answer = [&](int status) {
        if (!to.no_reply) send_status(to, status);
    };
    const auto it = objects.find(to.object);
    if (it == objects.end()) return answer(kNotFound);
    // Held for the duration of the call: the handler may remove its own object.
    const std::shared_ptr<LocalObject> obj = it->second;
    if (!attrs.has(kAttrMethod)) return answer(kInvalidArgument);
    const MethodHandler* handler = obj->type->find(attrs.str(kAttrMethod));
    if (!handler) return answer(kMethodNotFound);
    if (!attrs.has(kAttrData)) return answer(kInvalidArgument);

    Request req(*this, to, attrs, obj->path, std::move(passed));
    const int status = (*handler)(req);
    if (!req.deferred() && !to.no_reply) send_status(to, status, req.reply_fd_.get());
}

}  // namespace detail

AddResult Connection::add_object(std::string_view path, std::shared_ptr<const ObjectType> type,
                                 std::function<void(bool)> on_subscribers) {
    if (!type || !type->has_signature()) return {kInvalidArgument, 0};
    auto obj = std::make_shared<detail::LocalObject>();
    obj->on_subscribers = std::move(on_subscribers);
    return st_->add_object(path, std::move(type), std::move(obj));
}

AddResult Connection::add_anonymous_object(MethodHandler handler) {
    if (!handler) return {kInvalidArgument, 0};
    return st_->add_object({}, ObjectType::catch_all(std::move(handler)),
                           std::make_shared<detail::LocalObject>());
}

int Connection::remove_object(std::uint32_t id) {
    detail::ConnectionState& s = *st_;
    if (!s.usable()) return kConnectionFailed;
    if (!s.objects.contains(id)) return kNotFound;
    bool type_released = false;
    auto on_data = [&](const MsgAttrs& a) { type_released = type_released || a.has(kAttrObjType); };
    detail::PendingRequest req;
    req.on_data = on_data;
    s.begin_request(MsgType::RemoveObject, 0, req);
    s.out.put_u32(kAttrObjId, id);
    const int status = s.send_and_wait(req, s.request_timeout_ms);
    // Not found: the broker no longer knows it either, so it is gone all the same.
    if (status != kOk && status != kNotFound) return status;
    const auto it = s.objects.find(id);
    if (it != s.objects.end()) {
        if (it->second->type->has_signature()) s.release_type(it->second->type.get(), type_released);
        s.objects.erase(it);
    }
    return status;
}

}  // namespace ubus

// Method calls: INVOKE forwarded to the object's owner, the owner's DATA and STATUS replies
// forwarded back, and the calls the broker answers itself.
#include "ubusd/broker.hpp"

namespace ubusd {

using ubus::Frame;
using ubus::MsgAttrs;
using ubus::MsgType;

namespace {
const std::uint8_t kZeroPad[4] = {};
}

void Broker::on_invoke(Client& c, Frame& f) {
    const MsgAttrs a = f.attrs();
    if (!a.has(ubus::kAttrObjId) || !a.has(ubus::kAttrMethod)) {
        reply_status(c, f.hdr, ubus::kInvalidArgument);
        return;
    }
    const std::uint32_t id = a.u32(ubus::kAttrObjId);
    const std::string_view method = a.str(ubus::kAttrMethod);
    switch (id) {
        case ubus::kEventObject:
            reply_status(c, f.hdr, event_call(c, method, a));
            return;
        case ubus::kAclObject:
            reply_status(c, f.hdr, acl_call(c, f.hdr, method));
            return;
        case ubus::kMonitorObject:
            reply_status(c, f.hdr, monitor_call(c, method));
            return;
        default:
            break;
    }
    Object* o = find_object(id);
    if (!o) {
        reply_status(c, f.hdr, ubus::kNotFound);
        return;
    }

    // The owner gets OBJID, METHOD, the caller's identity and DATA, in that order, and learns
    // the caller from the header; nothing else the caller sent goes along. The broker keeps no
    // record of the call: the owner's replies carry everything needed to route them back.
    // The DATA attribute goes out straight from the caller's read buffer.
    reply_.start(MsgType::Invoke, f.hdr.seq, c.id);
    reply_.put_u32(ubus::kAttrObjId, id);
    reply_.put_raw(ubus::kAttrMethod, a[ubus::kAttrMethod].payload());
    reply_.put_string(ubus::kAttrUser, c.peer.user);
    reply_.put_string(ubus::kAttrGroup, c.peer.group);
    const ubus::Attr data = a[ubus::kAttrData];
    std::span<std::uint8_t> head = reply_.all();
    const std::size_t body_len = head.size() - ubus::kHeaderLen + data.padded_len();
    if (body_len > ubus::kMaxBodyLen) {
        // The caller's identity would push the message past what the owner accepts.
        reply_status(c, f.hdr, ubus::kInvalidArgument);
        return;
    }
    reply_.frame();
    ubus::wire::put32(head.data() + ubus::kHeaderLen, static_cast<std::uint32_t>(body_len));
    const iovec parts[] = {
        {head.data(), head.size()},
        {const_cast<std::uint8_t*>(data.raw().data()), data.raw_len()},
        {const_cast<std::uint8_t*>(kZeroPad), data.padded_len() - data.raw_len()},
    };
    send(*o->owner, parts, std::move(f.fd));
}

void Broker::on_reply(Client& c, Frame& f) {
    // Replies are trusted only from the owner of the object they name, and only when they carry
    // what the caller's library needs. Anything else (a listener acknowledging an event, a reply
    // to a caller that has left) is dropped without an answer.
    const MsgAttrs a = f.attrs();
    const bool is_status = f.hdr.type == MsgType::Status;
    if (!a.has(ubus::kAttrObjId) || !a.has(is_status ? ubus::kAttrStatus : ubus::kAttrData)) return;
    const std::uint32_t id = a.u32(ubus::kAttrObjId);
    const Object* o = find_object(id);
    if (!o || o->owner != &c) return;
    auto to = clients_.find(f.hdr.peer);
    if (to == clients_.end()) return;

    // Only the header changes: the caller matches replies by the object it called.
    std::uint8_t hdr[ubus::kHeaderLen];
    ubus::encode_header(hdr, {f.bytes[0], f.hdr.type, f.hdr.seq, id});
    const iovec parts[] = {{hdr, sizeof(hdr)}, {const_cast<std::uint8_t*>(f.body().data()), f.body().size()}};
    // A descriptor travels only with the final STATUS.
    send(*to->second, parts, is_status ? std::move(f.fd) : ubus::UniqueFd());
}

int Broker::acl_call(Client& c, const ubus::MsgHeader& req, std::string_view method) {
    if (method != "query") return ubus::kInvalidCommand;
    // Every client is allowed everything, so there are no rules to hand out.
    event_data_.reset();
    event_data_.add_i32("seq", 1);
    event_data_.close(event_data_.open_array("acl"));
    reply_.start(MsgType::Data, req.seq, req.peer);
    reply_.put_data(event_data_);
    send(c, reply_.frame());
    return ubus::kOk;
}

}  // namespace ubusd

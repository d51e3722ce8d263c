// Monitoring through object 3: a copy of every message the broker receives or sends.
#include <algorithm>

#include "ubusd/broker.hpp"

namespace ubusd {

using ubus::MsgType;

namespace {
// Attribute numbers of a MONITOR body.
enum : std::uint32_t {
    kMonClient = 0,
    kMonPeer = 1,
    kMonSend = 2,
    kMonSeq = 3,
    kMonType = 4,
    kMonData = 5,
};
}  // namespace

int Broker::monitor_call(Client& c, std::string_view method) {
    // Monitors see everyone's traffic, user names and data included.
    if (c.peer.uid != 0 || c.peer.gid != 0) return ubus::kPermissionDenied;
    if (method == "add") {
        if (!c.monitoring) {
            c.monitoring = true;
            monitors_.push_back(&c);
        }
        return ubus::kOk;
    }
    if (method == "remove") {
        stop_monitoring(c);
        return ubus::kOk;
    }
    return ubus::kMethodNotFound;
}

void Broker::stop_monitoring(Client& c) {
    if (!c.monitoring) return;
    c.monitoring = false;
    std::erase(monitors_, &c);
}

void Broker::monitor(const Client& c, bool sent, std::span<const iovec> frame) {
    ubus::Bytes msg;
    if (frame.size() == 1) {
        msg = {static_cast<const std::uint8_t*>(frame[0].iov_base), frame[0].iov_len};
    } else {
        gather_.clear();
        for (const iovec& p : frame) {
            const auto* b = static_cast<const std::uint8_t*>(p.iov_base);
            gather_.insert(gather_.end(), b, b + p.iov_len);
        }
        msg = gather_;
    }
    const ubus::MsgHeader h = ubus::decode_header(msg.data());

    monitor_.start(MsgType::Monitor, 0, 0);
    monitor_.put_u32(kMonClient, c.id);
    monitor_.put_u32(kMonPeer, h.peer);
    monitor_.put_u32(kMonSeq, h.seq);
    monitor_.put_u32(kMonType, static_cast<std::uint32_t>(h.type));
    monitor_.put_u8(kMonSend, sent ? 1 : 0);
    monitor_.put_raw(kMonData, msg.subspan(ubus::kHeaderLen + 4));
    if (monitor_.all().size() - ubus::kHeaderLen > ubus::kMaxBodyLen) return;
    const ubus::Bytes copy = monitor_.frame();
    const iovec whole{const_cast<std::uint8_t*>(copy.data()), copy.size()};
    std::uint8_t* seq = monitor_.all().data() + 2;
    for (Client* m : monitors_) {
        ubus::wire::put16(seq, ++m->monitor_seq);
        deliver(*m, {&whole, 1}, {});
    }
}

}  // namespace ubusd

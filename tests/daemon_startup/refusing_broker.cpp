#include "refusing_broker.hpp"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>

#include "ubus/wire.hpp"

namespace pkgd::testing {
RefusingBroker::RefusingBroker(const std::filesystem::path& socket) {
    std::filesystem::create_directories(socket.parent_path());
    std::filesystem::remove(socket);
    ubus::UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, socket.c_str(), sizeof addr.sun_path - 1);
    if (::bind(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || ::listen(fd.get(), 4) != 0)
        return;
    listener_ = std::move(fd);
    thread_ = std::thread([this] { serve(); });
}

RefusingBroker::~RefusingBroker() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
}

void RefusingBroker::serve() {
    ubus::UniqueFd client;
    ubus::FrameReader reader;
    ubus::MsgBuf out;
    std::uint32_t next_id = 0x1000;
    while (!stop_) {
        pollfd p{client ? client.get() : listener_.get(), POLLIN, 0};
        if (::poll(&p, 1, 50) <= 0) continue;
        if (!client) {
            client.reset(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
            out.start(ubus::MsgType::Hello, 0, next_id++);
            ubus::send_frame_blocking(client.get(), out.frame());
            continue;
        }
        if (reader.read_from(client.get()) != ubus::FrameReader::Result::NeedMore) return;
        ubus::Frame f;
        while (reader.next(f) == ubus::FrameReader::Result::Frame) {
            const ubus::MsgAttrs attrs = f.attrs();
            int status = ubus::kOk;
            if (f.hdr.type == ubus::MsgType::AddObject || f.hdr.type == ubus::MsgType::RemoveObject) {
                out.start(ubus::MsgType::Data, f.hdr.seq, f.hdr.peer);
                out.put_u32(ubus::kAttrObjId,
                            attrs.has(ubus::kAttrObjId) ? attrs.u32(ubus::kAttrObjId) : next_id++);
                if (attrs.has(ubus::kAttrSignature)) out.put_u32(ubus::kAttrObjType, next_id++);
                ubus::send_frame_blocking(client.get(), out.frame());
            } else if (f.hdr.type == ubus::MsgType::Invoke &&
                       attrs.u32(ubus::kAttrObjId) == ubus::kEventObject &&
                       attrs.str(ubus::kAttrMethod) == "register") {
                refused_ = true;
                status = ubus::kPermissionDenied;
            }
            out.start(ubus::MsgType::Status, f.hdr.seq, f.hdr.peer);
            out.put_u32(ubus::kAttrStatus, static_cast<std::uint32_t>(status));
            ubus::send_frame_blocking(client.get(), out.frame());
        }
    }
}

}  // namespace pkgd::testing

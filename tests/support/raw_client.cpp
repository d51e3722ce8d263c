#include "raw_client.hpp"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>
#include <stdexcept>

#include "poll.hpp"

namespace bus_test {

ubus::UniqueFd connect_unix(const std::string& path) {
    ubus::UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
    if (::connect(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) fd.reset();
    return fd;
}

RawClient::RawClient(const std::string& socket, bool expect_hello) : sock_(connect_unix(socket)) {
    if (!sock_) throw std::runtime_error("cannot connect to " + socket);
    if (!expect_hello) return;
    auto hello = read();
    if (!hello || hello->hdr().type != ubus::MsgType::Hello) throw std::runtime_error("no HELLO");
    id_ = hello->hdr().peer;
}

void RawClient::send(ubus::Bytes bytes, int pass_fd, std::size_t chunk) {
    if (chunk == 0) chunk = bytes.size();
    for (std::size_t off = 0; off < bytes.size(); off += chunk) {
        const auto piece = bytes.subspan(off, std::min(chunk, bytes.size() - off));
        ASSERT_TRUE(ubus::send_frame_blocking(sock_.get(), piece, off == 0 ? pass_fd : -1));
    }
}

std::optional<Received> RawClient::read(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (bool open = true;;) {
        ubus::Frame f;
        if (reader_.next(f) == ubus::FrameReader::Result::Frame)
            return Received{{f.bytes.begin(), f.bytes.end()}, std::move(f.fd)};
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd p{sock_.get(), POLLIN, 0};
        // Frames that arrived before the end still count: the loop takes them first.
        if (!open || left.count() <= 0 || ::poll(&p, 1, static_cast<int>(left.count())) <= 0)
            return std::nullopt;
        open = reader_.read_from(sock_.get()) == ubus::FrameReader::Result::NeedMore;
    }
}

bool RawClient::wait_closed() {
    return testsupport::poll_until(
        5s,
        [&] {
            pollfd p{sock_.get(), POLLIN, 0};
            if (::poll(&p, 1, 100) <= 0) return false;
            if (reader_.read_from(sock_.get()) != ubus::FrameReader::Result::NeedMore) return true;
            for (ubus::Frame f; reader_.next(f) == ubus::FrameReader::Result::Frame;) {
            }
            return false;
        },
        0ms);
}

std::vector<Received> RawClient::sync() {
    constexpr std::uint16_t kSyncSeq = 0xfff0;
    ubus::MsgBuf ping(ubus::MsgType::Ping, kSyncSeq, 0);
    send(ping);
    std::vector<Received> before;
    while (auto r = read()) {
        if (r->hdr().seq == kSyncSeq && r->hdr().type == ubus::MsgType::Data) {
            auto status = read();
            EXPECT_TRUE(status && status->hdr().type == ubus::MsgType::Status);
            return before;
        }
        before.push_back(std::move(*r));
    }
    ADD_FAILURE() << "no answer to a PING";
    return before;
}

Reply RawClient::request(ubus::MsgBuf& msg, int pass_fd) {
    const ubus::MsgHeader h = msg.header();
    send(msg, pass_fd);
    Reply reply;
    while (auto r = read()) {
        const ubus::MsgHeader rh = r->hdr();
        const bool ours = rh.seq == h.seq && rh.peer == h.peer;
        if (ours && rh.type == ubus::MsgType::Status) {
            reply.status = static_cast<int>(r->attrs().u32(ubus::kAttrStatus));
            return reply;
        }
        (ours && rh.type == ubus::MsgType::Data ? reply.data : other).push_back(std::move(*r));
    }
    ADD_FAILURE() << "no STATUS for seq " << h.seq;
    return reply;
}

ubus::MsgBuf lookup_msg(std::uint16_t seq, std::optional<std::string> path) {
    ubus::MsgBuf m(ubus::MsgType::Lookup, seq, 0);
    if (path) m.put_string(ubus::kAttrObjPath, *path);
    return m;
}

ubus::MsgBuf add_object_msg(std::uint16_t seq, std::optional<std::string> path) {
    ubus::MsgBuf m(ubus::MsgType::AddObject, seq, 0);
    if (!path) return m;
    m.put_string(ubus::kAttrObjPath, *path);
    const auto sig = m.nest_open(ubus::kAttrSignature);
    m.close(m.open_table("m1"));
    const auto m2 = m.open_table("m2");
    m.add_i32("a", static_cast<std::int32_t>(ubus::Type::String));
    m.close(m2);
    m.close(sig);
    return m;
}

ubus::MsgBuf invoke_msg(std::uint16_t seq, std::uint32_t obj, std::string_view method,
                        const ubus::BlobBuf& data) {
    ubus::MsgBuf m(ubus::MsgType::Invoke, seq, obj);
    m.put_u32(ubus::kAttrObjId, obj);
    m.put_string(ubus::kAttrMethod, method);
    m.put_data(data);
    return m;
}

ubus::MsgBuf status_msg(std::uint16_t seq, std::uint32_t peer, std::uint32_t obj, int status) {
    ubus::MsgBuf m(ubus::MsgType::Status, seq, peer);
    m.put_u32(ubus::kAttrStatus, static_cast<std::uint32_t>(status));
    m.put_u32(ubus::kAttrObjId, obj);
    return m;
}

ubus::MsgBuf register_msg(std::uint16_t seq, std::uint32_t listener, std::string_view pattern) {
    ubus::BlobBuf data;
    data.add_i32("object", static_cast<std::int32_t>(listener));
    data.add_string("pattern", pattern);
    return invoke_msg(seq, ubus::kEventObject, "register", data);
}

ubus::MsgBuf event_msg(std::uint16_t seq, std::string_view name, const ubus::BlobBuf& data) {
    ubus::BlobBuf args;
    args.add_string("id", name);
    const auto t = args.open_table("data");
    args.add_members(data.members());
    args.close(t);
    return invoke_msg(seq, ubus::kEventObject, "send", args);
}

std::uint32_t add_object(RawClient& c, std::optional<std::string> path, std::uint16_t seq) {
    auto msg = add_object_msg(seq, std::move(path));
    const Reply r = c.request(msg);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.data.size(), 1u) << "ADD_OBJECT answered with " << r.data.size() << " DATA";
    return r.data.empty() ? 0 : r.data[0].attrs().u32(ubus::kAttrObjId);
}

}  // namespace bus_test

#include "ubus/wire.hpp"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

namespace ubus {

std::string status_text(int status) {
    static constexpr const char* kText[] = {
        "Success",           "Invalid command",   "Invalid argument",  "Method not found",
        "Not found",         "No response",       "Permission denied", "Request timed out",
        "Operation not supported", "Unknown error", "Connection failed", "Out of memory",
        "Parsing message data failed", "System error",
    };
    if (status >= 0 && status < static_cast<int>(std::size(kText))) return kText[status];
    return "Unknown error: " + std::to_string(status);
}

// ---------------------------------------------------------------------------------------------

namespace {
enum class Kind : std::uint8_t { Any, U8, U32, String, Nested };

constexpr Kind kKinds[kAttrCount] = {
    Kind::Any,     // 0 unused
    Kind::U32,     // STATUS
    Kind::String,  // OBJPATH
    Kind::U32,     // OBJID
    Kind::String,  // METHOD
    Kind::U32,     // OBJTYPE
    Kind::Nested,  // SIGNATURE
    Kind::Nested,  // DATA
    Kind::U32,     // TARGET
    Kind::U8,      // ACTIVE
    Kind::U8,      // NO_REPLY
    Kind::Nested,  // SUBSCRIBERS
    Kind::String,  // USER
    Kind::String,  // GROUP
};

bool kind_ok(Attr a, Kind k) {
    switch (k) {
    case Kind::U8: return a.is_u8();
    case Kind::U32: return a.is_u32();
    case Kind::String: return a.is_string();
    default: return true;
    }
}
}  // namespace

MsgAttrs::MsgAttrs(Bytes body_payload) {
    for (Attr a : AttrList(body_payload)) {
        const std::uint32_t id = a.id();
        if (id >= kAttrCount || !kind_ok(a, kKinds[id])) continue;
        tb_[id] = a;
    }
}

// ---------------------------------------------------------------------------------------------

void encode_header(std::uint8_t* out, const MsgHeader& h) {
    out[0] = h.version;
    out[1] = static_cast<std::uint8_t>(h.type);
    wire::put16(out + 2, h.seq);
    wire::put32(out + 4, h.peer);
}

MsgHeader decode_header(const std::uint8_t* in) {
    MsgHeader h;
    h.version = in[0];
    h.type = static_cast<MsgType>(in[1]);
    h.seq = wire::get16(in + 2);
    h.peer = wire::get32(in + 4);
    return h;
}

void MsgBuf::start(MsgType type, std::uint16_t seq, std::uint32_t peer) {
    reset(0);
    hdr_ = MsgHeader{0, type, seq, peer};
}

Bytes MsgBuf::frame() {
    encode_header(all().data(), hdr_);
    return BlobBuf::all();
}

// ---------------------------------------------------------------------------------------------

void FrameReader::compact() {
    if (begin_ == 0) return;
    if (begin_ == end_) {
        begin_ = end_ = 0;
        return;
    }
    std::memmove(buf_.data(), buf_.data() + begin_, end_ - begin_);
    end_ -= begin_;
    begin_ = 0;
}

void FrameReader::feed(Bytes bytes) {
    if (bytes.empty()) return;  // memcpy from the null data() of an empty span is undefined
    compact();
    if (buf_.size() < end_ + bytes.size()) buf_.resize(end_ + bytes.size());
    std::memcpy(buf_.data() + end_, bytes.data(), bytes.size());
    end_ += bytes.size();
}

FrameReader::Result FrameReader::read_from(int fd) {
    compact();
    // Room for at least one header, and for the whole frame being assembled when its header
    // has already arrived, so large frames need few reads.
    std::size_t want = 64 * 1024;
    if (end_ >= kHeaderLen + 4) {
        const std::size_t len = wire::get32(buf_.data() + kHeaderLen) & 0xffffffu;
        // Only while that frame is still incomplete: with it (and more) already buffered, the
        // difference would wrap around.
        if (len >= 4 && pad4(len) <= kMaxBodyLen && kHeaderLen + len > end_)
            want = std::max(want, kHeaderLen + len - end_);
    }
    if (buf_.size() < end_ + want) buf_.resize(end_ + want);

    iovec iov{buf_.data() + end_, buf_.size() - end_};
    alignas(cmsghdr) char ctrl[CMSG_SPACE(sizeof(int) * 4)];
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = ctrl;
    msg.msg_controllen = sizeof(ctrl);
    ssize_t n;
    do {
        n = ::recvmsg(fd, &msg, MSG_CMSG_CLOEXEC | MSG_DONTWAIT);
    } while (n < 0 && errno == EINTR);
    if (n < 0) return (errno == EAGAIN || errno == EWOULDBLOCK) ? Result::NeedMore : Result::Error;

    const std::uint64_t read_start = consumed_ + (end_ - begin_);
    for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(&msg, c)) {
        if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_RIGHTS) continue;
        const std::size_t count = (c->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (std::size_t i = 0; i < count; ++i) {
            int passed;
            std::memcpy(&passed, CMSG_DATA(c) + i * sizeof(int), sizeof(int));
            fds_.push_back({read_start, read_start + static_cast<std::uint64_t>(n), UniqueFd(passed)});
        }
    }
    if (n == 0) return Result::Closed;
    end_ += static_cast<std::size_t>(n);
    return Result::NeedMore;
}

FrameReader::Result FrameReader::next(Frame& out) {
    out.fd.reset();
    const std::size_t avail = end_ - begin_;
    if (avail < kHeaderLen + 4) return Result::NeedMore;
    const std::uint8_t* p = buf_.data() + begin_;
    const std::size_t len = wire::get32(p + kHeaderLen) & 0xffffffu;
    if (len < 4 || pad4(len) > kMaxBodyLen) return Result::Error;
    const std::size_t total = kHeaderLen + len;
    if (avail < total) return Result::NeedMore;

    out.hdr = decode_header(p);
    out.bytes = Bytes(p, total);

    // A descriptor travels with the sendmsg() that carries its message, and a read stops after
    // the segment that carries one: it belongs to the last frame starting in that read.
    const std::uint64_t start = consumed_;
    const std::uint64_t stop = consumed_ + total;
    for (auto it = fds_.begin(); it != fds_.end();) {
        if (it->read_end <= start) {  // its frame has gone by unclaimed
            it = fds_.erase(it);
        } else if (it->read_start <= start && stop >= it->read_end && !out.fd) {
            out.fd = std::move(it->fd);
            it = fds_.erase(it);
        } else {
            ++it;
        }
    }

    begin_ += total;
    consumed_ += total;
    return Result::Frame;
}

ssize_t send_with_fd(int sock, const iovec* iov, std::size_t n, int pass_fd) {
    msghdr msg{};
    msg.msg_iov = const_cast<iovec*>(iov);
    msg.msg_iovlen = n;
    alignas(cmsghdr) char ctrl[CMSG_SPACE(sizeof(int))];
    if (pass_fd >= 0) {
        std::memset(ctrl, 0, sizeof(ctrl));
        msg.msg_control = ctrl;
        msg.msg_controllen = sizeof(ctrl);
        cmsghdr* c = CMSG_FIRSTHDR(&msg);
        c->cmsg_level = SOL_SOCKET;
        c->cmsg_type = SCM_RIGHTS;
        c->cmsg_len = CMSG_LEN(sizeof(int));
        std::memcpy(CMSG_DATA(c), &pass_fd, sizeof(int));
    }
    return ::sendmsg(sock, &msg, MSG_NOSIGNAL | MSG_DONTWAIT);
}

bool send_frame_blocking(int fd, Bytes frame, int pass_fd) {
    std::size_t off = 0;
    while (off < frame.size()) {
        const iovec iov{const_cast<std::uint8_t*>(frame.data() + off), frame.size() - off};
        const ssize_t n = send_with_fd(fd, &iov, 1, pass_fd);
        if (n < 0) {
            if (errno == EINTR) continue;
            if (errno != EAGAIN && errno != EWOULDBLOCK) return false;
            pollfd p{fd, POLLOUT, 0};
            if (::poll(&p, 1, -1) < 0 && errno != EINTR) return false;
            continue;
        }
        pass_fd = -1;  // the descriptor travels with the first bytes only
        off += static_cast<std::size_t>(n);
    }
    return true;
}

}  // namespace ubus

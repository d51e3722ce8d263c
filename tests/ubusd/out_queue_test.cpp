// The per-client output queue, against a real socket pair whose far end reads nothing until the
// test says so.
#include "ubusd/out_queue.hpp"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstring>

#include "ubus/wire.hpp"

namespace ubusd {
namespace {

struct SocketPair {
    ubus::UniqueFd near, far;
    SocketPair() {
        int sv[2];
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv), 0);
        near.reset(sv[0]);
        far.reset(sv[1]);
        const int small = 4096;
        ::setsockopt(near.get(), SOL_SOCKET, SO_SNDBUF, &small, sizeof(small));
    }
};

// Message `seq` with a 1000-byte body, handed over in two pieces split inside the header.
ubus::MsgBuf message(std::uint16_t seq) {
    ubus::MsgBuf m(ubus::MsgType::Data, seq, 0);
    m.put_raw(ubus::kAttrData, std::vector<std::uint8_t>(992, static_cast<std::uint8_t>(seq)));
    return m;
}

OutQueue::Result send(OutQueue& q, int sock, std::uint16_t seq, ubus::UniqueFd fd = {}) {
    ubus::MsgBuf m = message(seq);
    const ubus::Bytes f = m.frame();
    const iovec parts[] = {{const_cast<std::uint8_t*>(f.data()), 5},
                           {const_cast<std::uint8_t*>(f.data()) + 5, f.size() - 5}};
    return q.send(sock, parts, std::move(fd));
}

// Reads the way the gateway's client library does: exactly the 12 header bytes, then exactly the
// rest of the body. A descriptor counts for a message only if it comes with the header's read.
class StrictReader {
public:
    struct Message {
        std::uint16_t seq;
        bool fd;
    };
    // Takes what the socket has; false once it has nothing more right now.
    bool step(int sock, std::vector<Message>& out) {
        const std::size_t want = buf_.size() < 12 ? 12 - buf_.size() : body_end() - buf_.size();
        std::vector<std::uint8_t> chunk(want);
        iovec iov{chunk.data(), want};
        alignas(cmsghdr) char ctrl[CMSG_SPACE(sizeof(int))];
        msghdr msg{};
        msg.msg_iov = &iov;
        msg.msg_iovlen = 1;
        msg.msg_control = ctrl;
        msg.msg_controllen = sizeof(ctrl);
        const ssize_t n = ::recvmsg(sock, &msg, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
        if (n <= 0) return false;
        if (cmsghdr* c = CMSG_FIRSTHDR(&msg); c && c->cmsg_type == SCM_RIGHTS) {
            int fd;
            std::memcpy(&fd, CMSG_DATA(c), sizeof(fd));
            ::close(fd);
            EXPECT_TRUE(buf_.empty()) << "a descriptor arrived inside a message";
            fd_ = true;
        }
        buf_.insert(buf_.end(), chunk.begin(), chunk.begin() + n);
        if (buf_.size() >= 12 && buf_.size() == body_end()) {
            EXPECT_TRUE(std::ranges::equal(buf_, message(ubus::wire::get16(&buf_[2])).frame()));
            out.push_back({ubus::wire::get16(&buf_[2]), fd_});
            buf_.clear();
            fd_ = false;
        }
        return true;
    }

private:
    std::size_t body_end() const { return 8 + (ubus::wire::get32(&buf_[8]) & 0xffffff); }
    std::vector<std::uint8_t> buf_;
    bool fd_ = false;
};

// Everything the far end gets while the queue is flushed.
std::vector<StrictReader::Message> drain(OutQueue& q, SocketPair& s) {
    std::vector<StrictReader::Message> got;
    StrictReader reader;
    for (;;) {
        const OutQueue::Result r = q.flush(s.near.get());
        EXPECT_NE(r, OutQueue::Result::Failed);
        bool progress = false;
        while (reader.step(s.far.get(), got)) progress = true;
        if (!progress && r == OutQueue::Result::Done) break;
    }
    return got;
}

TEST(OutQueue, QueuedMessagesKeepTheirOrderAndTheirDescriptors) {
    SocketPair s;
    OutQueue q;
    std::uint16_t seq = 1;
    while (send(q, s.near.get(), seq, {}) == OutQueue::Result::Done) ++seq;
    // The socket is full and message `seq` partly waits; now descriptors behind it.
    const std::uint16_t first_queued = seq;
    int p[2];
    ASSERT_EQ(::pipe(p), 0);
    ::close(p[1]);
    EXPECT_EQ(send(q, s.near.get(), ++seq, ubus::UniqueFd(::dup(p[0]))), OutQueue::Result::Queued);
    EXPECT_EQ(send(q, s.near.get(), ++seq), OutQueue::Result::Queued);
    EXPECT_EQ(send(q, s.near.get(), ++seq, ubus::UniqueFd(p[0])), OutQueue::Result::Queued);
    EXPECT_EQ(send(q, s.near.get(), ++seq), OutQueue::Result::Queued);

    const auto got = drain(q, s);
    ASSERT_EQ(got.size(), seq);
    for (std::uint16_t i = 0; i < seq; ++i) {
        EXPECT_EQ(got[i].seq, i + 1);
        const bool with_fd = got[i].seq == first_queued + 1 || got[i].seq == first_queued + 3;
        EXPECT_EQ(got[i].fd, with_fd) << "message " << got[i].seq;
    }
    EXPECT_TRUE(q.empty());
}

TEST(OutQueue, MessagesBeyondTheLimitAreDroppedWholeWithTheirDescriptors) {
    std::signal(SIGPIPE, SIG_IGN);
    SocketPair s;
    OutQueue q(8 * 1024);
    std::uint16_t seq = 1;
    while (send(q, s.near.get(), seq, {}) == OutQueue::Result::Done) ++seq;
    while (q.size() + 1000 <= 8 * 1024) ASSERT_EQ(send(q, s.near.get(), ++seq), OutQueue::Result::Queued);
    const std::uint16_t last_kept = seq;
    int p[2];
    ASSERT_EQ(::pipe(p), 0);
    EXPECT_EQ(send(q, s.near.get(), 999, ubus::UniqueFd(p[0])), OutQueue::Result::Dropped);
    EXPECT_EQ(::write(p[1], "x", 1), -1) << "the dropped message's descriptor was left open";
    ::close(p[1]);

    const auto got = drain(q, s);
    ASSERT_FALSE(got.empty());
    EXPECT_EQ(got.back().seq, last_kept);
    // With room again, messages go straight out.
    EXPECT_EQ(send(q, s.near.get(), 1000), OutQueue::Result::Done);

    s.far.reset();
    EXPECT_EQ(send(q, s.near.get(), 1001), OutQueue::Result::Failed);
}

}  // namespace
}  // namespace ubusd

// The per-client output queue, against a real socket pair whose far end reads nothing until the
// test says so.
#include "ubusd/out_queue.hpp"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstring>

#include "pipe_text.hpp"
#include "ubus/wire.hpp"

namespace ubusd {
namespace {

using Result = OutQueue::Result;

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

// Message `seq` with a 1000-byte body.
ubus::MsgBuf message(std::uint16_t seq) {
    ubus::MsgBuf m(ubus::MsgType::Data, seq, 0);
    m.put_raw(ubus::kAttrData, std::vector<std::uint8_t>(992, static_cast<std::uint8_t>(seq)));
    return m;
}

// Hands message `seq` over in two pieces split inside the header.
Result send(OutQueue& q, int sock, std::uint16_t seq, ubus::UniqueFd fd = {}) {
    ubus::MsgBuf m = message(seq);
    const ubus::Bytes frame = m.frame();
    auto* f = const_cast<std::uint8_t*>(frame.data());
    const iovec parts[] = {{f, 5}, {f + 5, frame.size() - 5}};
    return q.send(sock, parts, std::move(fd));
}

std::size_t frame_len(const std::vector<std::uint8_t>& header) {
    return 8 + (ubus::wire::get32(&header[8]) & 0xffffff);
}

// Flushes the queue into the socket and reads from the far end the way the gateway's client
// library does: exactly the 12 header bytes, then exactly the rest. A descriptor counts for a
// message only if it comes with the header's read. Returns the seq of each message, "+fd" marked.
std::vector<std::string> drain(OutQueue& q, SocketPair& s) {
    std::vector<std::string> got;
    std::vector<std::uint8_t> buf;
    bool with_fd = false;
    for (bool progress = true; progress;) {
        const Result r = q.flush(s.near.get());
        EXPECT_NE(r, Result::Failed);
        progress = r == Result::Queued;  // (a broken socket ends it too)
        for (;;) {
            std::vector<std::uint8_t> chunk(buf.size() < 12 ? 12 - buf.size() : frame_len(buf) - buf.size());
            iovec iov{chunk.data(), chunk.size()};
            alignas(cmsghdr) char ctrl[CMSG_SPACE(sizeof(int))];
            msghdr msg{};
            msg.msg_iov = &iov;
            msg.msg_iovlen = 1;
            msg.msg_control = ctrl;
            msg.msg_controllen = sizeof(ctrl);
            const ssize_t n = ::recvmsg(s.far.get(), &msg, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
            if (n <= 0) break;
            progress = true;
            if (cmsghdr* c = CMSG_FIRSTHDR(&msg); c && c->cmsg_type == SCM_RIGHTS) {
                int fd;
                std::memcpy(&fd, CMSG_DATA(c), sizeof(fd));
                ::close(fd);
                EXPECT_TRUE(buf.empty()) << "a descriptor arrived inside a message";
                with_fd = true;
            }
            buf.insert(buf.end(), chunk.begin(), chunk.begin() + n);
            if (buf.size() < 12 || buf.size() != frame_len(buf)) continue;
            const std::uint16_t seq = ubus::wire::get16(&buf[2]);
            EXPECT_TRUE(std::ranges::equal(buf, message(seq).frame())) << "message " << seq;
            got.push_back(std::to_string(seq) + (std::exchange(with_fd, false) ? "+fd" : ""));
            buf.clear();
        }
    }
    return got;
}

TEST(OutQueue, QueuedMessagesKeepTheirOrderAndDescriptorsAndThoseBeyondTheLimitAreDroppedWhole) {
    std::signal(SIGPIPE, SIG_IGN);
    SocketPair s;
    OutQueue q(8 * 1024);
    std::uint16_t seq = 1;
    while (send(q, s.near.get(), seq) == Result::Done) ++seq;
    // The socket is full and message `seq` partly waits; now messages with descriptors behind it.
    std::vector<std::string> expected;
    for (std::uint16_t i = 1; i <= seq; ++i) expected.push_back(std::to_string(i));
    const bus_test::Pipe p;
    for (bool fd = true; q.size() + 1000 <= 8 * 1024; fd = !fd) {
        EXPECT_EQ(send(q, s.near.get(), ++seq, ubus::UniqueFd(fd ? ::dup(p.r.get()) : -1)), Result::Queued);
        expected.push_back(std::to_string(seq) + (fd ? "+fd" : ""));
    }
    bus_test::Pipe dropped;
    EXPECT_EQ(send(q, s.near.get(), 999, std::move(dropped.r)), Result::Dropped);
    EXPECT_EQ(::write(dropped.w.get(), "x", 1), -1) << "the dropped message's descriptor was left open";

    EXPECT_EQ(drain(q, s), expected);
    EXPECT_TRUE(q.empty());
    EXPECT_EQ(send(q, s.near.get(), 1000), Result::Done) << "with room again, messages go straight out";
    s.far.reset();
    EXPECT_EQ(send(q, s.near.get(), 1001), Result::Failed);
}

}  // namespace
}  // namespace ubusd

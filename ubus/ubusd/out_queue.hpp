// The bytes a client has not taken yet, in order, with the descriptors that travel with them.
#pragma once

#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <span>
#include <vector>

#include "ubus/fd.hpp"

namespace ubusd {

// A message is handed over as a few byte ranges (a rewritten header, a body still sitting in
// another client's read buffer, ...). When nothing is waiting, the socket gets them at once with
// one sendmsg() and only what it did not take is copied here; otherwise the message is appended,
// unless that would take the unsent total past the limit, in which case it is dropped whole so
// that a client that does not read cannot make the broker hold unbounded memory.
//
// A descriptor is attached to the sendmsg() that starts its message and that call ends with the
// message, so the receiver gets it with the message's first bytes and with no later message.
class OutQueue {
public:
    static constexpr std::size_t kDefaultLimit = std::size_t{1} << 20;

    explicit OutQueue(std::size_t limit = kDefaultLimit) : limit_(limit) {}

    enum class Result {
        Done,     // everything is on the socket
        Queued,   // something waits for the socket to become writable
        Dropped,  // the message did not fit behind the waiting data
        Failed,   // the socket is broken
    };

    Result send(int sock, std::span<const iovec> parts, ubus::UniqueFd fd);
    // Writes what is waiting until the socket stops taking it.
    Result flush(int sock);

    bool empty() const { return head_ == buf_.size(); }
    std::size_t size() const { return buf_.size() - head_; }
    void clear();

private:
    void append(std::span<const iovec> parts, std::size_t skip);

    struct FdMark {
        std::uint64_t start;  // stream positions of the message the descriptor belongs to
        std::uint64_t end;
        ubus::UniqueFd fd;
    };
    std::vector<std::uint8_t> buf_;
    std::size_t head_ = 0;        // first unsent byte in buf_
    std::uint64_t head_pos_ = 0;  // stream position of buf_[head_]
    std::deque<FdMark> fds_;
    std::size_t limit_;
};

}  // namespace ubusd

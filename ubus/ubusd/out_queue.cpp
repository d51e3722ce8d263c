#include "ubusd/out_queue.hpp"

#include <cerrno>

#include "ubus/wire.hpp"

namespace ubusd {

namespace {

// Keep a large buffer only while it is in use: a burst towards one slow client should not pin
// a megabyte for the rest of the connection.
constexpr std::size_t kKeepCapacity = 256 * 1024;

// One sendmsg(); returns the bytes written, 0 when the socket is full, -1 when it is broken.
ssize_t write_some(int sock, const iovec* iov, std::size_t n, int fd) {
    for (;;) {
        const ssize_t r = ubus::send_with_fd(sock, iov, n, fd);
        if (r >= 0) return r;
        if (errno == EINTR) continue;
        return (errno == EAGAIN || errno == EWOULDBLOCK) ? 0 : -1;
    }
}

}  // namespace

OutQueue::Result OutQueue::send(int sock, std::span<const iovec> parts, ubus::UniqueFd fd) {
    std::size_t total = 0;
    for (const iovec& p : parts) total += p.iov_len;

    if (!empty()) {
        if (size() + total > limit_) return Result::Dropped;
        if (fd) fds_.push_back({head_pos_ + size(), head_pos_ + size() + total, std::move(fd)});
        append(parts, 0);
        return Result::Queued;
    }

    const ssize_t r = write_some(sock, parts.data(), parts.size(), fd.get());
    if (r < 0) return Result::Failed;
    const auto written = static_cast<std::size_t>(r);
    if (written == total) return Result::Done;
    // Once any byte went out, the descriptor went with it.
    if (written == 0 && fd) fds_.push_back({head_pos_, head_pos_ + total, std::move(fd)});
    append(parts, written);
    return Result::Queued;
}

void OutQueue::append(std::span<const iovec> parts, std::size_t skip) {
    if (head_ > 0 && head_ == buf_.size()) {
        buf_.clear();
        head_ = 0;
    }
    for (const iovec& p : parts) {
        const auto* b = static_cast<const std::uint8_t*>(p.iov_base);
        if (skip >= p.iov_len) {
            skip -= p.iov_len;
            continue;
        }
        buf_.insert(buf_.end(), b + skip, b + p.iov_len);
        skip = 0;
    }
}

OutQueue::Result OutQueue::flush(int sock) {
    while (!empty()) {
        std::size_t len = size();
        int fd = -1;
        if (!fds_.empty()) {
            const FdMark& m = fds_.front();
            if (m.start == head_pos_) {
                len = static_cast<std::size_t>(m.end - head_pos_);
                fd = m.fd.get();
            } else {
                len = static_cast<std::size_t>(m.start - head_pos_);
            }
        }
        const iovec iov{buf_.data() + head_, len};
        const ssize_t r = write_some(sock, &iov, 1, fd);
        if (r < 0) return Result::Failed;
        if (r == 0) break;
        if (fd >= 0) fds_.pop_front();
        head_ += static_cast<std::size_t>(r);
        head_pos_ += static_cast<std::uint64_t>(r);
        if (static_cast<std::size_t>(r) < len) break;
    }
    if (empty()) {
        buf_.clear();
        head_ = 0;
        if (buf_.capacity() > kKeepCapacity) buf_.shrink_to_fit();
        return Result::Done;
    }
    // Reclaim the sent front once it dominates, so a steadily slow reader does not make the
    // buffer creep forward.
    if (head_ >= 64 * 1024 && head_ >= buf_.size() / 2) {
        buf_.erase(buf_.begin(), buf_.begin() + static_cast<std::ptrdiff_t>(head_));
        head_ = 0;
    }
    return Result::Queued;
}

void OutQueue::clear() {
    buf_.clear();
    buf_.shrink_to_fit();
    head_ = 0;
    fds_.clear();
}

}  // namespace ubusd

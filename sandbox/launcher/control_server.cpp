#include "control_server.hpp"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

#include "unix_socket.hpp"

namespace sandbox {
namespace {

constexpr std::size_t kMaxRequest = 256;
constexpr std::size_t kMaxConnections = 32;

}  // namespace

Status ControlServer::open(const std::filesystem::path& path, Handler handler) {
    std::string error;
    listener_ = listen_unix(path, SOCK_STREAM, 0600, error);
    if (!listener_) return Status::failure(error);
    handler_ = std::move(handler);
    return {};
}

std::vector<int> ControlServer::fds() const {
    std::vector<int> out{listener_.get()};
    for (const auto& c : connections_) out.push_back(c.fd.get());
    return out;
}

void ControlServer::on_readable(int fd) {
    if (fd == listener_.get()) {
        accept_all();
        return;
    }
    auto it = std::find_if(connections_.begin(), connections_.end(),
                           [fd](const auto& c) { return c.fd.get() == fd; });
    if (it != connections_.end() && !serve(*it)) connections_.erase(it);
}

void ControlServer::accept_all() {
    while (true) {
        ubus::UniqueFd fd(::accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (!fd) return;
        // A client that connects and never speaks must not pile up descriptors.
        if (connections_.size() >= kMaxConnections) connections_.erase(connections_.begin());
        connections_.push_back({std::move(fd), {}});
    }
}

bool ControlServer::serve(Connection& connection) {
    char buf[kMaxRequest];
    while (true) {
        ssize_t n = ::recv(connection.fd.get(), buf, sizeof buf, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return errno == EAGAIN;
        if (n == 0) return false;
        connection.received.append(buf, static_cast<std::size_t>(n));
        auto newline = connection.received.find('\n');
        if (newline != std::string::npos) {
            std::string reply = handler_(std::string_view(connection.received).substr(0, newline)) + "\n";
            // A reply is one short line: it fits in an empty socket buffer, or the client is gone.
            ::send(connection.fd.get(), reply.data(), reply.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
            return false;
        }
        if (connection.received.size() > kMaxRequest) return false;
    }
}

}  // namespace sandbox

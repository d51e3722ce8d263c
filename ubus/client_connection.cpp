// The Connection handle: its lifetime, connecting, settings, and how incoming traffic is driven.
#include <poll.h>

#include <cerrno>

#include "client_state.hpp"

namespace ubus {

namespace {
// Ends a state for good: no more loop callbacks, socket closed, waiting requests failed.
void retire(detail::ConnectionState& s) {
    s.detach_loop();
    s.shut(kConnectionFailed);
    s.disconnect_notice = false;
    s.queued.clear();
}
}  // namespace

Connection::Connection() : st_(std::make_shared<detail::ConnectionState>()) {}

Connection::~Connection() {
    if (st_) retire(*st_);
}

Connection::Connection(Connection&& o) noexcept
    : st_(std::exchange(o.st_, std::make_shared<detail::ConnectionState>())) {}

Connection& Connection::operator=(Connection&& o) noexcept {
    if (this != &o) {
        retire(*st_);
        st_ = std::exchange(o.st_, std::make_shared<detail::ConnectionState>());
    }
    return *this;
}

int Connection::connect(std::string_view socket_path) {
    auto fresh = std::make_shared<detail::ConnectionState>();
    fresh->request_timeout_ms = st_->request_timeout_ms;
    fresh->on_disconnect = st_->on_disconnect;
    fresh->on_monitor = st_->on_monitor;
    // A loop inherited across fork() belongs to the parent: never carry it over.
    Loop* loop = st_->foreign() ? nullptr : st_->loop;
    retire(*st_);
    st_ = std::move(fresh);
    const int status = st_->open_socket(socket_path);
    if (loop) attach(*loop);
    return status;
}

bool Connection::connected() const {
    return st_->usable();
}

std::uint32_t Connection::client_id() const {
    return st_->usable() ? st_->client_id : 0;
}

void Connection::close() {
    st_->shut(kConnectionFailed);
}

void Connection::set_request_timeout(int timeout_ms) {
    st_->request_timeout_ms = timeout_ms < 0 ? 0 : timeout_ms;
}

void Connection::on_disconnect(std::function<void()> callback) {
    st_->on_disconnect = std::move(callback);
}

void Connection::on_monitor(MonitorHandler handler) {
    st_->on_monitor = std::move(handler);
}

void Connection::attach(Loop& loop) {
    detail::ConnectionState& s = *st_;
    s.detach_loop();
    if (s.foreign()) return;  // inherited by a forked child: hands off
    s.loop = &loop;
    s.watch_socket();
    // Work that arrived before the loop took over (calls queued during a wait, frames read along
    // with the greeting, a lost connection) must not wait for the socket to become readable.
    if (!s.queued.empty() || s.disconnect_notice || s.reader.buffered() > 0) s.schedule_dispatch();
}

void Connection::detach() {
    st_->detach_loop();
}

int Connection::dispatch(int timeout_ms) {
    const auto keep = st_;  // a handler may replace or destroy this Connection's state
    detail::ConnectionState& s = *keep;
    if (!s.owned()) return kConnectionFailed;
    if (s.dispatching || s.dispatching_call || s.wait_depth > 0) return kOk;
    if (s.dispatch_ready() == 0 && s.usable()) {
        pollfd p{s.fd.get(), POLLIN, 0};
        int n;
        do {
            n = ::poll(&p, 1, timeout_ms);
        } while (n < 0 && errno == EINTR);
        if (n != 0 && !s.read_some()) s.lose();
        s.dispatch_ready();
    }
    return s.usable() ? kOk : kConnectionFailed;
}

}  // namespace ubus

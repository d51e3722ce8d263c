// Connections: accepting, reading and dispatching frames, writing, and tearing clients down.
#include "ubusd/broker.hpp"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>

namespace ubusd {

using ubus::Frame;
using ubus::FrameReader;
using ubus::Loop;
using ubus::MsgType;

namespace {
// When the process runs out of descriptors, the listening socket stays readable; pause instead
// of spinning on accept() until a client leaves.
constexpr std::chrono::milliseconds kAcceptBackoff{100};
// Descriptors held for a message that has not arrived completely.
constexpr std::size_t kMaxPendingFds = 8;
// Connections taken per loop round: a storm of connects must not starve the clients already
// being served (the listener stays readable and is seen again next round).
constexpr int kAcceptsPerRound = 32;
}  // namespace

Broker::Broker(Loop& loop, ubus::UniqueFd listener) : loop_(loop), listener_(std::move(listener)) {
    watch_listener();
}

Broker::~Broker() {
    if (listener_watch_) loop_.remove_fd(listener_watch_);
    if (backoff_) loop_.cancel_timer(backoff_);
    for (auto& [id, c] : clients_) loop_.remove_fd(c->watch);
}

void Broker::watch_listener() {
    listener_watch_ = loop_.add_fd(listener_.get(), Loop::kRead, [this](std::uint32_t) { accept_clients(); });
}

void Broker::accept_clients() {
    for (int taken = 0; taken < kAcceptsPerRound;) {
        const int fd = ::accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd >= 0) {
            add_client(ubus::UniqueFd(fd));
            ++taken;
            continue;
        }
        if (errno == EINTR || errno == ECONNABORTED || errno == EPROTO) continue;
        if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
            loop_.remove_fd(listener_watch_);
            listener_watch_ = 0;
            backoff_ = loop_.add_timer(kAcceptBackoff, [this] {
                backoff_ = 0;
                watch_listener();
            });
        }
        break;
    }
    reap();
}

void Broker::add_client(ubus::UniqueFd sock) {
    auto c = std::make_unique<Client>();
    if (!peer_identity(sock.get(), names_, c->peer)) return;
    c->id = ids_.next([this](std::uint32_t id) { return clients_.contains(id); });
    c->sock = std::move(sock);
    Client* cp = c.get();
    c->watch =
        loop_.add_fd(cp->sock.get(), Loop::kRead, [this, cp](std::uint32_t ev) { on_client_event(*cp, ev); });
    if (!c->watch) return;
    clients_.emplace(c->id, std::move(c));

    // The whole handshake: the client learns its id and may start sending requests.
    std::uint8_t hello[ubus::kHeaderLen + 4];
    ubus::encode_header(hello, {0, MsgType::Hello, 0, cp->id});
    ubus::wire::put32(hello + ubus::kHeaderLen, 4);
    send(*cp, hello);
}

void Broker::on_client_event(Client& c, std::uint32_t events) {
    if ((events & Loop::kWrite) && !c.dead) flush(c);
    // A client paused behind a listing is not read from, unless its connection is gone.
    if ((events & Loop::kError) || ((events & Loop::kRead) && !c.lookup)) {
        if (!c.dead) read_from(c);
    }
    reap();
}

void Broker::read_from(Client& c) {
    const FrameReader::Result r = c.reader.read_from(c.sock.get());
    // A client passes at most one descriptor per message, and whole messages are taken out
    // below, so only a client feeding descriptors into an unfinished message gets past this.
    if (r == FrameReader::Result::Closed || r == FrameReader::Result::Error ||
        c.reader.pending_fds() > kMaxPendingFds) {
        drop(c);
        return;
    }
    take_frames(c);
}

void Broker::take_frames(Client& c) {
    Frame f;
    while (!c.dead && !c.lookup) {
        const FrameReader::Result n = c.reader.next(f);
        if (n == FrameReader::Result::NeedMore) break;
        if (n != FrameReader::Result::Frame) {
            // A length outside the limits: the stream cannot be resynchronised.
            drop(c);
            break;
        }
        dispatch(c, f);
    }
}

void Broker::dispatch(Client& c, Frame& f) {
    if (!monitors_.empty()) {
        const iovec whole{const_cast<std::uint8_t*>(f.bytes.data()), f.bytes.size()};
        monitor(c, false, {&whole, 1});
    }
    switch (f.hdr.type) {
        case MsgType::Ping:
            on_ping(c, f);
            break;
        case MsgType::Lookup:
            on_lookup(c, f);
            break;
        case MsgType::AddObject:
            on_add_object(c, f);
            break;
        case MsgType::RemoveObject:
            on_remove_object(c, f);
            break;
        case MsgType::Invoke:
            on_invoke(c, f);
            break;
        case MsgType::Data:
        case MsgType::Status:
            on_reply(c, f);
            break;
        case MsgType::Subscribe:
            on_subscribe(c, f);
            break;
        case MsgType::Unsubscribe:
            on_unsubscribe(c, f);
            break;
        case MsgType::Notify:
            on_notify(c, f);
            break;
        default:
            reply_status(c, f.hdr, ubus::kInvalidCommand);
            break;
    }
}

// The client is marked now and torn down once the event being handled is done with, so that
// nothing in the middle of routing (an event fan-out, say) loses the records it walks.
void Broker::drop(Client& c) {
    if (c.dead) return;
    c.dead = true;
    dropped_.push_back(&c);
}

void Broker::reap() {
    // Tearing one client down may break the connection of another (an UNSUBSCRIBE it cannot
    // take), which lands here too.
    while (!dropped_.empty()) {
        Client* c = dropped_.back();
        dropped_.pop_back();
        tear_down(*c);
    }
}

void Broker::tear_down(Client& c) {
    c.out.clear();
    stop_monitoring(c);
    while (!c.objects.empty()) remove_object(*c.objects.back());
    loop_.remove_fd(c.watch);
    clients_.erase(c.id);
}

// ---------------------------------------------------------------------------------------------

void Broker::send(Client& to, std::span<const iovec> parts, ubus::UniqueFd fd) {
    std::size_t total = 0;
    for (const iovec& p : parts) total += p.iov_len;
    // Nothing larger than a receiver accepts goes out: it would cost the receiver its
    // connection. Senders that can make such a message refuse earlier with an error.
    if (total < ubus::kHeaderLen + 4 || total - ubus::kHeaderLen > ubus::kMaxBodyLen) return;
    if (!monitors_.empty()) monitor(to, true, parts);
    deliver(to, parts, std::move(fd));
}

void Broker::send(Client& to, ubus::Bytes frame, ubus::UniqueFd fd) {
    const iovec whole{const_cast<std::uint8_t*>(frame.data()), frame.size()};
    send(to, {&whole, 1}, std::move(fd));
}

void Broker::deliver(Client& to, std::span<const iovec> parts, ubus::UniqueFd fd) {
    if (to.dead) return;
    switch (to.out.send(to.sock.get(), parts, std::move(fd))) {
        case OutQueue::Result::Queued:
            update_interest(to);
            break;
        case OutQueue::Result::Failed:
            drop(to);
            break;
        case OutQueue::Result::Done:
        case OutQueue::Result::Dropped:
            break;
    }
}

void Broker::flush(Client& c) {
    if (c.out.flush(c.sock.get()) == OutQueue::Result::Failed) {
        drop(c);
        return;
    }
    if (c.lookup && c.out.empty()) {
        Client::PendingLookup state = std::move(*c.lookup);
        c.lookup.reset();
        list_paths(c, std::move(state));
        // Requests that arrived behind the listing are answered now, in order.
        if (!c.lookup) take_frames(c);
    }
    update_interest(c);
}

void Broker::update_interest(Client& c) {
    if (c.dead) return;
    const std::uint32_t want =
        (c.lookup ? 0u : std::uint32_t{Loop::kRead}) | (c.out.empty() ? 0u : std::uint32_t{Loop::kWrite});
    if (want == c.interest) return;
    if (!loop_.modify_fd(c.watch, want)) {
        drop(c);
        return;
    }
    c.interest = want;
}

void Broker::reply_status(Client& to, const ubus::MsgHeader& req, int status) {
    std::uint8_t msg[ubus::kHeaderLen + 12];
    ubus::encode_header(msg, {0, MsgType::Status, req.seq, req.peer});
    ubus::wire::put32(msg + 8, 12);
    ubus::wire::put32(msg + 12, (ubus::kAttrStatus << 24) | 8);
    ubus::wire::put32(msg + 16, static_cast<std::uint32_t>(status));
    send(to, msg);
}

Object* Broker::find_object(std::uint32_t id) {
    auto it = objects_.find(id);
    return it == objects_.end() ? nullptr : &it->second;
}

}  // namespace ubusd

// The connection's transport: connecting, sending, the synchronous wait, reading and routing
// incoming frames, and the hand-over of deferred work to the loop.
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "client_state.hpp"

namespace ubus::detail {

namespace {
using Clock = std::chrono::steady_clock;

// Milliseconds left until `deadline`, rounded up so that a wait never ends early.
int ms_until(Clock::time_point deadline) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left > 0 ? static_cast<int>(std::min<long long>(left, 1 << 30)) : 0;
}

// Waits until `fd` is readable (or hung up). False on time-out.
bool wait_readable(int fd, int timeout_ms) {
    pollfd p{fd, POLLIN, 0};
    for (;;) {
        const int n = ::poll(&p, 1, timeout_ms);
        if (n >= 0) return n > 0;
        if (errno != EINTR) return true;  // let the read report the error
    }
}
}  // namespace

bool PendingRequest::matches(std::uint16_t s, std::uint32_t p) const {
    if (s != seq) return false;
    if (p == peer) return true;
    return collect_subscribers && broker_answered &&
           std::find(awaiting.begin(), awaiting.end(), p) != awaiting.end();
}

ConnectionState::~ConnectionState() {
    detach_loop();
}

bool ConnectionState::owned() const {
    return owner_pid != 0 && owner_pid == ::getpid();
}

bool ConnectionState::foreign() const {
    return owner_pid != 0 && owner_pid != ::getpid();
}

int ConnectionState::open_socket(std::string_view path) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof(addr.sun_path)) return kConnectionFailed;
    std::memcpy(addr.sun_path, path.data(), path.size());

    UniqueFd sock(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!sock) return kConnectionFailed;
    int rc;
    do {
        rc = ::connect(sock.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof(addr));
    } while (rc < 0 && errno == EINTR);
    if (rc < 0) return kConnectionFailed;

    // The broker greets every new client with HELLO, carrying the client's id, before anything
    // else; a peer that does not is not a broker we can talk to.
    const auto deadline = Clock::now() + std::chrono::milliseconds(Connection::kHelloTimeoutMs);
    for (;;) {
        const FrameReader::Result r = reader.next(frame);
        if (r == FrameReader::Result::Frame) {
            if (frame.hdr.type != MsgType::Hello) return kConnectionFailed;
            client_id = frame.hdr.peer;
            break;
        }
        if (r == FrameReader::Result::Error) return kConnectionFailed;
        const int left = ms_until(deadline);
        if (left == 0 || !wait_readable(sock.get(), left)) return kConnectionFailed;
        if (reader.read_from(sock.get()) != FrameReader::Result::NeedMore) return kConnectionFailed;
    }
    fd = std::move(sock);
    owner_pid = ::getpid();
    open = true;
    return kOk;
}

void ConnectionState::shut(int status) {
    if (!foreign()) unwatch_socket();
    watch = 0;
    fd.reset();
    open = false;
    for (PendingRequest* r : pending) {
        if (r->done) continue;
        r->done = true;
        r->status = status;
    }
    if (async_finished()) schedule_dispatch();
}

void ConnectionState::lose() {
    if (!open) return;
    shut(kConnectionFailed);
    disconnect_notice = true;
    schedule_dispatch();
}

// ---------------------------------------------------------------------------------------------
// Loop attachment

void ConnectionState::watch_socket() {
    if (!loop || watch != 0 || !usable()) return;
    watch = loop->add_fd(fd.get(), Loop::kRead, [this](std::uint32_t) {
        auto keep = shared_from_this();  // a handler may destroy the Connection
        if (!read_some()) lose();
        dispatch_ready();
    });
}

void ConnectionState::unwatch_socket() {
    if (loop && watch != 0) loop->remove_fd(watch);
    watch = 0;
}

void ConnectionState::detach_loop() {
    // A forked child must not touch the parent's loop: it only forgets it.
    if (!foreign()) {
        unwatch_socket();
        if (loop && timer != 0) loop->cancel_timer(timer);
        for (const auto& call : async_calls)
            if (loop && call->timer != 0) loop->cancel_timer(call->timer);
    }
    // Without the loop their callbacks could never run: open calls are dropped.
    for (const auto& call : async_calls) std::erase(pending, &call->req);
    async_calls.clear();
    watch = 0;
    timer = 0;
    loop = nullptr;
}

void ConnectionState::schedule_dispatch() {
    if (!loop || timer != 0 || !owned()) return;
    timer = loop->add_timer(std::chrono::milliseconds(0), [this] {
        timer = 0;
        dispatch_ready();
    });
}

// ---------------------------------------------------------------------------------------------
// Sending

std::uint16_t ConnectionState::next_seq() {
    if (++last_seq == 0) last_seq = 1;
    return last_seq;
}

int ConnectionState::send(int pass_fd) {
    if (!usable()) return kConnectionFailed;
    const Bytes f = out.frame();
    if (f.size() - kHeaderLen > kMaxBodyLen) return kInvalidArgument;
    if (!send_frame_blocking(fd.get(), f, pass_fd)) {
        lose();
        return kConnectionFailed;
    }
    return kOk;
}

void ConnectionState::begin_request(MsgType type, std::uint32_t peer, PendingRequest& req) {
    req.seq = next_seq();
    req.peer = peer;
    out.start(type, req.seq, peer);
}

int ConnectionState::send_and_wait(PendingRequest& req, int timeout_ms, int pass_fd) {
    const int rc = send(pass_fd);
    if (rc != kOk) return rc;
    return wait(req, timeout_ms);
}

int ConnectionState::wait(PendingRequest& req, int timeout_ms) {
    auto keep = shared_from_this();  // a reply callback may drop the Connection
    pending.push_back(&req);
    ++wait_depth;
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
    while (!req.done) {
        process_frames();
        if (req.done) break;
        if (!usable()) {
            req.done = true;
            req.status = kConnectionFailed;
            break;
        }
        int poll_ms = -1;
        if (timeout_ms > 0) {
            poll_ms = ms_until(deadline);
            if (poll_ms == 0) {
                req.status = kTimeout;  // forgotten: a late reply matches nothing
                break;
            }
        }
        if (wait_readable(fd.get(), poll_ms) && !read_some()) lose();
    }
    pending.erase(std::find(pending.begin(), pending.end(), &req));
    --wait_depth;
    if (wait_depth == 0 && (!queued.empty() || disconnect_notice || async_finished())) schedule_dispatch();
    return req.status;
}

int ConnectionState::start_async(std::unique_ptr<AsyncCall> call, int timeout_ms) {
    if (!loop || !owned()) return kInvalidArgument;
    const int rc = send();
    if (rc != kOk) return rc;
    AsyncCall* c = call.get();
    c->req.async = true;
    c->collect = [c](const MsgAttrs& a) {
        if (a.has(kAttrData)) {
            const Bytes d = a.data();
            c->data.emplace_back(d.begin(), d.end());
        }
    };
    c->req.on_data = c->collect;
    if (timeout_ms > 0) {
        c->timer = loop->add_timer(std::chrono::milliseconds(timeout_ms), [this, c] {
            c->timer = 0;
            if (c->req.done) return;
            c->req.done = true;
            c->req.status = kTimeout;  // forgotten: a late reply matches nothing
            dispatch_ready();
        });
    }
    pending.push_back(&c->req);
    async_calls.push_back(std::move(call));
    return kOk;
}

bool ConnectionState::async_finished() const {
    return std::any_of(async_calls.begin(), async_calls.end(),
                       [](const auto& call) { return call->req.done; });
}

void ConnectionState::finish_async_calls() {
    while (true) {
        const auto it = std::find_if(async_calls.begin(), async_calls.end(),
                                     [](const auto& call) { return call->req.done; });
        if (it == async_calls.end()) return;
        std::unique_ptr<AsyncCall> call = std::move(*it);
        async_calls.erase(it);
        std::erase(pending, &call->req);
        if (loop && call->timer != 0) loop->cancel_timer(call->timer);
        // The callback may make calls of its own, or drop the connection: nothing of ours is
        // touched after it.
        dispatching_call = true;
        if (call->on_done) call->on_done(call->req.status, call->data);
        dispatching_call = false;
    }
}

int ConnectionState::send_status(const ReplyTarget& to, int status, int pass_fd) {
    out.start(MsgType::Status, to.seq, to.peer);
    out.put_u32(kAttrStatus, static_cast<std::uint32_t>(status));
    out.put_u32(kAttrObjId, to.object);
    return send(pass_fd);
}

int ConnectionState::send_data(const ReplyTarget& to, Bytes members) {
    out.start(MsgType::Data, to.seq, to.peer);
    out.put_u32(kAttrObjId, to.object);
    out.put_raw(kAttrData, members);
    return send();
}

// ---------------------------------------------------------------------------------------------
// Receiving

bool ConnectionState::read_some() {
    if (!usable()) return false;
    return reader.read_from(fd.get()) == FrameReader::Result::NeedMore;
}

void ConnectionState::process_frames() {
    while (usable()) {
        const FrameReader::Result r = reader.next(frame);
        if (r == FrameReader::Result::Error) lose();  // the stream cannot be resynchronised
        if (r != FrameReader::Result::Frame) return;
        handle_frame(frame.hdr, frame.bytes, std::move(frame.fd));
    }
}

void ConnectionState::handle_frame(MsgHeader hdr, Bytes bytes, UniqueFd passed) {
    switch (hdr.type) {
        case MsgType::Data:
        case MsgType::Status:
            handle_reply(hdr, MsgAttrs(bytes.subspan(kHeaderLen + 4)), std::move(passed));
            return;
        case MsgType::Invoke:
        case MsgType::Notify:
        case MsgType::Unsubscribe:
        case MsgType::Monitor:
            if (wait_depth > 0 || dispatching_call) {
                // Not now: the code waiting (or the handler running) must not be re-entered.
                queued.push_back({std::vector<std::uint8_t>(bytes.begin(), bytes.end()), std::move(passed)});
                return;
            }
            // A handler may wait on this connection, which reads into (and moves) the reader's
            // buffer: handle the call from a copy.
            incoming_copy.assign(bytes.begin(), bytes.end());
            handle_incoming(hdr, incoming_copy, std::move(passed));
            return;
        default:
            return;  // HELLO again, unknown types: nothing for a client to do
    }
}

void ConnectionState::handle_reply(MsgHeader hdr, const MsgAttrs& attrs, UniqueFd passed) {
    // Innermost first: a nested request is the most likely to be answered.
    for (auto it = pending.rbegin(); it != pending.rend(); ++it) {
        PendingRequest& r = **it;
        if (r.done || !r.matches(hdr.seq, hdr.peer)) continue;
        if (hdr.type == MsgType::Data) {
            if (r.on_data) r.on_data(attrs);
            return;
        }
        const int status =
            attrs.has(kAttrStatus) ? static_cast<int>(attrs.u32(kAttrStatus)) : kInvalidArgument;
        if (!r.collect_subscribers) {
            r.done = true;
            r.status = status;
            if (r.reply_fd && passed) *r.reply_fd = std::move(passed);
            if (r.async) schedule_dispatch();
        } else if (!r.broker_answered && hdr.peer == r.peer) {
            r.broker_answered = true;
            r.status = status;
            if (status == kOk) {
                for (Attr a : attrs[kAttrSubscribers].nested())
                    if (a.is_u32()) r.awaiting.push_back(a.u32());
            }
            r.done = status != kOk || r.awaiting.empty();
        } else {
            std::erase(r.awaiting, hdr.peer);
            r.done = r.awaiting.empty();
        }
        return;
    }
    // Matches nothing open: a reply that arrived after its request timed out.
}

void ConnectionState::handle_incoming(MsgHeader hdr, Bytes bytes, UniqueFd passed) {
    const MsgAttrs attrs(bytes.subspan(kHeaderLen + 4));
    dispatching_call = true;
    switch (hdr.type) {
        case MsgType::Invoke:
            handle_invoke(hdr, attrs, std::move(passed));
            break;
        case MsgType::Notify:
            handle_subscriber_notice(attrs);
            break;
        case MsgType::Unsubscribe:
            handle_unsubscribe(attrs);
            break;
        case MsgType::Monitor:
            if (on_monitor) on_monitor(bytes.subspan(kHeaderLen + 4));
            break;
        default:
            break;
    }
    dispatching_call = false;
}

std::size_t ConnectionState::dispatch_ready() {
    if (dispatching || dispatching_call || wait_depth > 0 || !owned()) return 0;
    auto keep = shared_from_this();  // a handler or the disconnect callback may drop the Connection
    dispatching = true;
    std::size_t handled = 0;
    for (;;) {
        if (!queued.empty()) {
            QueuedMessage m = std::move(queued.front());
            queued.pop_front();
            handle_incoming(decode_header(m.bytes.data()), m.bytes, std::move(m.fd));
            ++handled;
            continue;
        }
        if (!usable()) break;
        const FrameReader::Result r = reader.next(frame);
        if (r == FrameReader::Result::Error) lose();
        if (r != FrameReader::Result::Frame) break;
        handle_frame(frame.hdr, frame.bytes, std::move(frame.fd));
        ++handled;
    }
    dispatching = false;
    finish_async_calls();
    if (disconnect_notice) {
        disconnect_notice = false;
        if (on_disconnect) {
            const auto callback = on_disconnect;  // it may replace itself or destroy the Connection
            callback();
        }
    }
    return handled;
}

}  // namespace ubus::detail

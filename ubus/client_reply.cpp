// Answering a method call: replies sent from the handler, and replies completed later.
#include "client_state.hpp"

namespace ubus {

int Request::reply(Bytes members) {
    return conn_.send_data(target_, members);
}

DeferredReply Request::defer() {
    DeferredReply d;
    if (deferred_) return d;  // the final status has already been handed over once
    deferred_ = true;
    d.conn_ = conn_.weak_from_this();
    d.target_ = target_;
    d.fd_ = std::move(reply_fd_);
    d.pending_ = true;
    return d;
}

DeferredReply::DeferredReply(DeferredReply&& o) noexcept
    : conn_(std::move(o.conn_)),
      target_(o.target_),
      fd_(std::move(o.fd_)),
      pending_(std::exchange(o.pending_, false)) {}

DeferredReply& DeferredReply::operator=(DeferredReply&& o) noexcept {
    if (this != &o) {
        if (pending_) complete(kUnknownError);
        conn_ = std::move(o.conn_);
        target_ = o.target_;
        fd_ = std::move(o.fd_);
        pending_ = std::exchange(o.pending_, false);
    }
    return *this;
}

DeferredReply::~DeferredReply() {
    if (pending_) complete(kUnknownError);
}

int DeferredReply::reply(Bytes members) {
    if (!pending_) return kInvalidCommand;
    const auto conn = conn_.lock();
    return conn ? conn->send_data(target_, members) : kConnectionFailed;
}

int DeferredReply::complete(int status) {
    if (!pending_) return kInvalidCommand;
    pending_ = false;
    const UniqueFd reply_fd = std::move(fd_);
    const auto conn = conn_.lock();
    if (!conn) return kConnectionFailed;
    if (target_.no_reply) return kOk;
    return conn->send_status(target_, status, reply_fd.get());
}

}  // namespace ubus

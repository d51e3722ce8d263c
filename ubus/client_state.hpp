// Internal state of a bus connection, shared by the client library's source files.
#pragma once

#include <sys/types.h>

#include <deque>
#include <functional>
#include <memory>
#include <unordered_map>
#include <vector>

#include "ubus/client.hpp"
#include "ubus/loop.hpp"

namespace ubus::detail {

// One request waiting for its final STATUS, matched by (seq, peer). Lives on the stack of the
// synchronous call that waits for it.
struct PendingRequest {
    std::uint16_t seq = 0;
    std::uint32_t peer = 0;
    FunctionRef<void(const MsgAttrs&)> on_data;
    UniqueFd* reply_fd = nullptr;  // where a descriptor sent with the final STATUS goes
    bool done = false;
    int status = kTimeout;
    // A notification that wants replies: after the broker's STATUS (which lists the subscribers),
    // one STATUS per subscriber, each carrying the subscriber's object id as peer.
    bool collect_subscribers = false;
    bool broker_answered = false;
    std::vector<std::uint32_t> awaiting;
    bool async = false;  // an AsyncCall's: completed from the loop, not by a waiting caller

    bool matches(std::uint16_t s, std::uint32_t p) const;
};

// An object registered by this connection.
struct LocalObject {
    std::string path;
    std::shared_ptr<const ObjectType> type;
    std::function<void(bool)> on_subscribers;
    std::function<void(std::uint32_t)> on_target_removed;
    bool has_subscribers = false;
};

// A type id the broker assigned to one of our object types, with the number of our objects that
// use it: the id is forgotten with the last of them (or when the broker says it released it).
struct TypeRef {
    std::uint32_t id = 0;
    std::size_t objects = 0;
};

// A call made with invoke_async. It stays among the pending requests until its final STATUS, its
// time-out or the end of the connection; its callback then runs from the loop, at the top level.
struct AsyncCall {
    PendingRequest req;
    std::function<void(const MsgAttrs&)> collect;  // what req.on_data refers to
    std::vector<std::vector<std::uint8_t>> data;
    AsyncCallback on_done;
    Loop::Id timer = 0;
};

// A method call or notice received while a synchronous request was waiting, kept for later.
struct QueuedMessage {
    std::vector<std::uint8_t> bytes;
    UniqueFd fd;
};

struct ConnectionState : std::enable_shared_from_this<ConnectionState> {
    UniqueFd fd;
    pid_t owner_pid = 0;
    std::uint32_t client_id = 0;
    bool open = false;
    std::uint16_t last_seq = 0;
    int request_timeout_ms = Connection::kDefaultRequestTimeoutMs;

    FrameReader reader;
    Frame frame;                              // reused for every frame read
    MsgBuf out;                               // reused for every message sent
    std::vector<std::uint8_t> incoming_copy;  // the call being handled, out of the reader's buffer
    std::vector<PendingRequest*> pending;     // open requests, innermost last
    int wait_depth = 0;                       // synchronous waits in progress
    bool dispatching = false;                 // dispatch_ready() is running
    bool dispatching_call = false;            // a method handler or object callback is running
    std::deque<QueuedMessage> queued;
    std::vector<std::unique_ptr<AsyncCall>> async_calls;  // open and finished, in sending order
    bool disconnect_notice = false;  // on_disconnect still to be called
    std::function<void()> on_disconnect;
    MonitorHandler on_monitor;

    std::unordered_map<std::uint32_t, std::shared_ptr<LocalObject>> objects;
    std::unordered_map<const ObjectType*, TypeRef> types;

    Loop* loop = nullptr;
    Loop::Id watch = 0;
    Loop::Id timer = 0;

    ~ConnectionState();

    // True in the process that connected; everything else must stay away from the socket.
    bool owned() const;
    // True in a process that inherited the connection through fork().
    bool foreign() const;
    bool usable() const { return open && owned(); }

    int open_socket(std::string_view path);
    // Ends the connection: stops watching, closes the socket, fails waiting requests with `status`.
    void shut(int status);
    // The broker went away: shut(kConnectionFailed) and arrange for on_disconnect to be called.
    void lose();

    // Loop attachment.
    void watch_socket();
    void unwatch_socket();
    void detach_loop();
    void schedule_dispatch();

    // ----- sending -----
    std::uint16_t next_seq();
    // Sends `out` (with `pass_fd` attached). kInvalidArgument when too large, kConnectionFailed
    // when the connection is not usable or the write fails.
    int send(int pass_fd = -1);
    // Starts a request message in `out` and registers it in `req`.
    void begin_request(MsgType type, std::uint32_t peer, PendingRequest& req);
    // Sends the request built in `out` and waits for its final STATUS.
    int send_and_wait(PendingRequest& req, int timeout_ms, int pass_fd = -1);
    int wait(PendingRequest& req, int timeout_ms);
    int send_status(const ReplyTarget& to, int status, int pass_fd = -1);
    int send_data(const ReplyTarget& to, Bytes members);

    // ----- receiving -----
    // Reads what the socket has; false when the connection broke.
    bool read_some();
    // Handles every complete frame already read (queueing calls while a request waits).
    void process_frames();
    void handle_frame(MsgHeader hdr, Bytes bytes, UniqueFd fd);
    void handle_reply(MsgHeader hdr, const MsgAttrs& attrs, UniqueFd fd);
    // An incoming call or notice, from a buffer that stays put while it is handled.
    void handle_incoming(MsgHeader hdr, Bytes bytes, UniqueFd fd);
    // Handles queued and buffered work, then delivers a pending disconnect notice; only at the
    // top level (not inside a handler or a wait). Returns the number of messages handled.
    std::size_t dispatch_ready();
    // Sends the call built in `out` and registers it; its callback runs once it ends.
    int start_async(std::unique_ptr<AsyncCall> call, int timeout_ms);
    bool async_finished() const;
    // Runs the callbacks of the calls that have ended, oldest first.
    void finish_async_calls();

    // ----- owner side -----
    void handle_invoke(MsgHeader hdr, const MsgAttrs& attrs, UniqueFd fd);
    void handle_subscriber_notice(const MsgAttrs& attrs);
    void handle_unsubscribe(const MsgAttrs& attrs);
    AddResult add_object(std::string_view path, std::shared_ptr<const ObjectType> type,
                         std::shared_ptr<LocalObject> obj);
    // One object of `type` is gone; `released_by_broker`: the broker dropped the type id.
    void release_type(const ObjectType* type, bool released_by_broker);
};

}  // namespace ubus::detail

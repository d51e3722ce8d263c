// The bus client library: one connection to the broker, as caller, object owner, event listener
// and subscriber.
//
// Everything is single-threaded. Requests are synchronous: a call sends its message and waits for
// the broker's (or the object owner's) final STATUS, handing each DATA reply to a callback on the
// way. While a call waits, incoming method calls, notifications and unsubscribe notices are queued,
// not handled: handlers never run inside another handler's synchronous call on the same connection.
// Queued work runs afterwards, from the loop when the connection is attached to one (attach()), or
// at the next dispatch() otherwise.
//
// Return values are bus status codes (ubus::Status in wire.hpp): 0 on success, the broker's or
// owner's status otherwise, kTimeout (7) when a time-out expired, kConnectionFailed (10) when there
// is no usable connection, kInvalidArgument (2) for a message too large to send (nothing is sent).
//
// Fork safety: the process that connected owns the connection. In any other process (a forked
// worker) every operation fails with kConnectionFailed without reading or writing a byte, and
// destroying the Connection only closes the inherited descriptor.
//
// Typical use:
//   ubus::Connection bus;
//   if (bus.connect(socket_path) != 0) ...;
//   std::uint32_t id;
//   if (bus.lookup_id("demo", id) == 0)
//       bus.invoke(id, "hello", args.members(), [&](ubus::Bytes reply) { ... }, 5000);
//
//   static constexpr ubus::Policy kHelloArgs[] = {{"id", ubus::Type::Int32}, {"msg", ubus::Type::String}};
//   auto type = ubus::ObjectType::make({{"hello", kHelloArgs, [](ubus::Request& req) {
//       auto args = ubus::parse(kHelloArgs, req.args());
//       ...; req.reply(out);
//       return ubus::kOk;
//   }}});
//   bus.add_object("demo", type);
//   bus.attach(loop);
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "ubus/blob.hpp"
#include "ubus/fd.hpp"
#include "ubus/function_ref.hpp"
#include "ubus/wire.hpp"

namespace ubus {

class Loop;
class Request;

namespace detail {
struct ConnectionState;
}

// A method handler answers one incoming call. It may send any number of DATA replies with
// req.reply() and returns the final status, which is sent to the caller (unless the call was
// deferred with req.defer(), or the caller asked for no reply).
using MethodHandler = std::function<int(Request& req)>;

// One method of an object type: its name, the arguments it advertises in the object's signature
// (name and blobmsg type; Type::Unspec = any), and its handler. The policy is only read while the
// type is built; handlers typically parse their arguments with the same static policy array.
struct MethodDef {
    std::string_view name;
    std::span<const Policy> args;
    MethodHandler handler;
};

// The methods of a kind of object. One type may back any number of objects (for instance one
// object per installed package): it is described to the broker once per connection, and later
// objects of the same type are registered by type id only.
class ObjectType {
public:
    explicit ObjectType(std::span<const MethodDef> methods);
    static std::shared_ptr<const ObjectType> make(std::initializer_list<MethodDef> methods);
    // A type without a signature whose handler receives every method name: used for anonymous
    // objects (event listeners, subscribers).
    static std::shared_ptr<const ObjectType> catch_all(MethodHandler handler);

    // The handler for `method`, or nullptr when the type has no such method.
    const MethodHandler* find(std::string_view method) const;
    // The signature as registered: one blobmsg TABLE per method, named after it, holding one INT32
    // per argument whose value is the argument's blobmsg type number.
    Bytes signature() const { return signature_; }
    bool has_signature() const { return !catch_all_; }

private:
    ObjectType() = default;
    struct Method {
        std::string name;
        MethodHandler handler;
    };
    std::vector<Method> methods_;
    MethodHandler catch_all_;
    std::vector<std::uint8_t> signature_;
};

// Where a reply goes: the request it answers.
struct ReplyTarget {
    std::uint16_t seq = 0;
    std::uint32_t peer = 0;    // the caller's client id (0 for event deliveries)
    std::uint32_t object = 0;  // the called object
    bool no_reply = false;     // the caller wants no final STATUS
};

// A reply that is completed later, outside the handler (from a timer, another request's callback,
// ...). It stays valid after the handler returned; if the connection is gone by then, its calls
// do nothing and return kConnectionFailed. Destroying a reply that still owes its final status
// completes it with kUnknownError, so that a forgotten request never leaves its caller waiting
// for a time-out.
class DeferredReply {
public:
    DeferredReply() = default;
    DeferredReply(DeferredReply&& o) noexcept;
    DeferredReply& operator=(DeferredReply&& o) noexcept;
    ~DeferredReply();

    // True while the final status is still owed.
    explicit operator bool() const { return pending_; }
    const ReplyTarget& target() const { return target_; }

    int reply(Bytes members);  // one DATA reply holding these blobmsg members
    int reply(const BlobBuf& data) { return reply(data.members()); }
    void set_fd(UniqueFd fd) { fd_ = std::move(fd); }  // sent with the final STATUS
    // Sends the final STATUS (skipped when the caller asked for no reply) and releases the reply.
    int complete(int status);

private:
    friend class Request;
    std::weak_ptr<detail::ConnectionState> conn_;
    ReplyTarget target_;
    UniqueFd fd_;
    bool pending_ = false;
};

// An incoming method call, as seen by its handler. All views (method, args, path, user, group) are
// valid until the handler returns.
class Request {
public:
    std::uint32_t object() const { return target_.object; }
    std::string_view path() const { return path_; }  // empty for anonymous objects
    std::string_view method() const { return attrs_.str(kAttrMethod); }
    Bytes args() const { return attrs_.data(); }  // the argument members (blobmsg)
    // The caller's identity, as the broker reports it (absent for event deliveries).
    std::string_view user() const { return attrs_.str(kAttrUser); }
    std::string_view group() const { return attrs_.str(kAttrGroup); }
    const ReplyTarget& target() const { return target_; }

    int reply(Bytes members);  // sends one DATA reply now
    int reply(const BlobBuf& data) { return reply(data.members()); }

    // A descriptor the caller sent with the call (empty if none).
    UniqueFd take_fd() { return std::move(fd_); }
    // A descriptor to send to the caller with the final STATUS.
    void set_reply_fd(UniqueFd fd) { reply_fd_ = std::move(fd); }

    // Takes over the final status: the handler's return value is then ignored, and the caller
    // gets its STATUS when the returned reply is completed. A reply fd already set moves with it.
    DeferredReply defer();
    bool deferred() const { return deferred_; }

private:
    friend struct detail::ConnectionState;
    Request(detail::ConnectionState& conn, const ReplyTarget& target, const MsgAttrs& attrs,
            std::string_view path, UniqueFd fd)
        : conn_(conn), target_(target), attrs_(attrs), path_(path), fd_(std::move(fd)) {}

    detail::ConnectionState& conn_;
    ReplyTarget target_;
    MsgAttrs attrs_;
    std::string_view path_;
    UniqueFd fd_;
    UniqueFd reply_fd_;
    bool deferred_ = false;
};

// One object found by lookup(). `signature` holds one TABLE per method (see ObjectType).
struct ObjectInfo {
    std::string_view path;
    std::uint32_t id = 0;
    std::uint32_t type = 0;
    Bytes signature;
};

// The result of registering an object: status and, on success, the new object's id.
struct AddResult {
    int status = kConnectionFailed;
    std::uint32_t id = 0;
};

// Descriptors exchanged with one call: `send` travels with the INVOKE (the caller keeps ownership);
// a descriptor the owner sent back with its final STATUS is stored in `*received` (closed when
// `received` is null).
struct CallFds {
    int send = -1;
    UniqueFd* received = nullptr;
};

using DataCallback = FunctionRef<void(Bytes members)>;
// A copy of bus traffic for a monitor: the MONITOR message's body attributes (they use their own
// numbering: client, peer, send, seq, type, data).
using MonitorHandler = std::function<void(Bytes attributes)>;
using LookupCallback = FunctionRef<void(const ObjectInfo& object)>;
// An event: its type (name) and the members of its data table.
using EventHandler = std::function<void(std::string_view type, Bytes data)>;
// The end of an asynchronous call: its final status and the members of its DATA replies.
using AsyncCallback = std::function<void(int status, std::span<const std::vector<std::uint8_t>> data)>;

class Connection {
public:
    // Time-out of the library's own requests (lookup, object registration, event registration and
    // sending, subscriptions) unless changed with set_request_timeout(). A broker that stops
    // answering is then reported as kTimeout instead of blocking the process forever.
    static constexpr int kDefaultRequestTimeoutMs = 30000;
    // How long connect() waits for the broker's greeting.
    static constexpr int kHelloTimeoutMs = 5000;

    Connection();
    ~Connection();
    Connection(Connection&& o) noexcept;
    Connection& operator=(Connection&& o) noexcept;
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    // ----- connection -----
    // Connects and reads the broker's greeting. A connection that was open before is closed first
    // (its objects are gone); settings, the disconnect callback and the loop attachment are kept.
    int connect(std::string_view socket_path = kDefaultSocket);
    bool connected() const;
    // The client id the broker assigned (0 when not connected).
    std::uint32_t client_id() const;
    // Closes the connection; waiting requests end with kConnectionFailed. No disconnect callback.
    void close();
    // 0 waits forever (like the reference library).
    void set_request_timeout(int timeout_ms);
    // Called once when the broker goes away (end of stream, read or write error, a malformed
    // header). It runs outside any request and handler, so it may destroy or reconnect the
    // connection. Waiting requests end with kConnectionFailed before it is called.
    void on_disconnect(std::function<void()> callback);

    // ----- driving incoming traffic -----
    // Watches the connection from `loop` (which must outlive the attachment); incoming calls and
    // events are then handled from the loop. detach() (or the destructor) removes the watch.
    void attach(Loop& loop);
    void detach();
    // Without a loop: handles what has arrived, waiting up to `timeout_ms` (0 = do not wait,
    // negative = forever) when nothing is ready. Returns 0, or kConnectionFailed once the
    // connection is gone. Does nothing when called from inside a handler.
    int dispatch(int timeout_ms = 0);

    // ----- calling -----
    // Objects whose path is `path`, or starts with the text before a final '*'. 4 when none.
    int lookup(std::string_view path, LookupCallback on_object);
    // Every object that has a path.
    int lookup_all(LookupCallback on_object);
    // The id of the object at `path` (the last one of a '*' pattern). As with the reference, a
    // lookup that succeeds without naming an object (an object without methods) leaves `id` 0,
    // which the broker answers with kNotFound when invoked.
    int lookup_id(std::string_view path, std::uint32_t& id);
    // Calls `method` on `object` with the argument members `args` (blobmsg; empty for none), hands
    // each DATA reply's members to `on_data`, and returns the final status. `timeout_ms` 0 waits
    // forever; on time-out the call ends with kTimeout and replies arriving later are ignored.
    int invoke(std::uint32_t object, std::string_view method, Bytes args, DataCallback on_data,
               int timeout_ms, CallFds fds = {});
    // The same without waiting, for a connection attached to a loop: returns kOk once the call is
    // sent, and `on_done` is called later from the loop, exactly once, with the final status and
    // the members of every DATA reply in order. A call not answered within `timeout_ms` (> 0) ends
    // with kTimeout; one still open when the connection breaks ends with kConnectionFailed. When
    // the call cannot be sent (no loop, no connection, too large) the error is returned and
    // `on_done` is never called. close() ends open calls with kConnectionFailed as well; destroying,
    // reconnecting or detaching the connection drops them without a callback.
    int invoke_async(std::uint32_t object, std::string_view method, Bytes args, AsyncCallback on_done,
                     int timeout_ms);

    // ----- events -----
    // Broadcasts an event: type (name) and the members of its data table.
    int send_event(std::string_view type, Bytes data);
    // An anonymous listener object; events reach it once patterns are registered for it.
    AddResult add_event_handler(EventHandler handler);
    // Registers one more pattern for a listener: an exact event type, or a prefix ending in '*'.
    int register_event(std::uint32_t listener, std::string_view pattern);
    // Both steps at once. On failure nothing stays registered.
    AddResult listen(std::string_view pattern, EventHandler handler);

    // Receives the broker's copies of traffic once this client registered as a monitor (a call
    // of "add" on the monitor object, kMonitorObject).
    void on_monitor(MonitorHandler handler);

    // ----- objects -----
    // Registers an object at `path` with the methods of `type`. `on_subscribers`, if given, is
    // told whenever the object gains its first subscriber (true) or loses its last (false).
    AddResult add_object(std::string_view path, std::shared_ptr<const ObjectType> type,
                         std::function<void(bool has_subscribers)> on_subscribers = {});
    // An object without a path (not listed by lookups) whose handler receives every method.
    AddResult add_anonymous_object(MethodHandler handler);
    // Unregisters one of this connection's objects (kNotFound, without asking the broker, for an
    // id it does not own).
    int remove_object(std::uint32_t id);
    bool has_subscribers(std::uint32_t object) const;
    // Sends a notification `name` with data members to the subscribers of one of our objects.
    // timeout_ms < 0: no replies wanted, returns once sent. Otherwise waits (0 = forever) for the
    // broker and then for each subscriber to answer; kTimeout if some did not in time.
    int notify(std::uint32_t object, std::string_view name, Bytes data, int timeout_ms);

    // ----- subscriptions -----
    // An anonymous subscriber object. Notifications reach `on_notification` as method calls (the
    // method is the notification's name); `on_target_removed` learns when a watched object goes.
    AddResult add_subscriber(MethodHandler on_notification,
                             std::function<void(std::uint32_t target)> on_target_removed = {});
    int subscribe(std::uint32_t subscriber, std::uint32_t target);
    int unsubscribe(std::uint32_t subscriber, std::uint32_t target);

private:
    std::shared_ptr<detail::ConnectionState> st_;
};

}  // namespace ubus

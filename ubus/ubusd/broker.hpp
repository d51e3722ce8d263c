// The bus broker: accepts clients on the listening socket and routes their messages.
#pragma once

#include <sys/uio.h>

#include <cstdint>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "ubus/blob.hpp"
#include "ubus/loop.hpp"
#include "ubus/wire.hpp"
#include "ubusd/bus_state.hpp"
#include "ubusd/id_source.hpp"
#include "ubusd/pattern_index.hpp"
#include "ubusd/peer_identity.hpp"

namespace ubusd {

// Everything runs on the loop's thread. Clients are served until they disconnect or break the
// framing; a client that does not read loses messages (see OutQueue) but never slows anyone else.
// Every client is trusted: access-control files are not consulted.
class Broker {
public:
    Broker(ubus::Loop& loop, ubus::UniqueFd listener);
    ~Broker();
    Broker(const Broker&) = delete;
    Broker& operator=(const Broker&) = delete;

    std::size_t client_count() const { return clients_.size(); }
    std::size_t object_count() const { return objects_.size(); }

private:
    // ----- connections (broker.cpp)
    void watch_listener();
    void accept_clients();
    void add_client(ubus::UniqueFd sock);
    void on_client_event(Client& c, std::uint32_t events);
    void read_from(Client& c);
    void take_frames(Client& c);
    void update_interest(Client& c);
    void dispatch(Client& c, ubus::Frame& f);
    void drop(Client& c);
    void reap();
    void tear_down(Client& c);

    // ----- output (broker.cpp)
    // Sends one whole frame given as byte ranges (header first); monitors get a copy.
    void send(Client& to, std::span<const iovec> parts, ubus::UniqueFd fd = {});
    void send(Client& to, ubus::Bytes frame, ubus::UniqueFd fd = {});
    void deliver(Client& to, std::span<const iovec> parts, ubus::UniqueFd fd);
    void flush(Client& c);
    // The final STATUS of a request the broker answers itself: seq and peer of the request.
    void reply_status(Client& to, const ubus::MsgHeader& req, int status);
    Object* find_object(std::uint32_t id);

    // ----- registry (objects.cpp)
    void on_ping(Client& c, const ubus::Frame& f);
    void on_lookup(Client& c, const ubus::Frame& f);
    void on_add_object(Client& c, const ubus::Frame& f);
    void on_remove_object(Client& c, const ubus::Frame& f);
    void send_lookup_entry(Client& to, const ubus::MsgHeader& req, const Object& o);
    // Lists paths in order from `state.resume` on; pauses when the client falls behind.
    void list_paths(Client& c, Client::PendingLookup state);
    ObjectType* new_type(ubus::Attr signature);
    // Unlinks and erases an object, telling whoever needs to know; returns the id of its type
    // when this was the type's last object, else 0.
    std::uint32_t remove_object(Object& o);

    // ----- calls (invoke.cpp)
    void on_invoke(Client& c, ubus::Frame& f);
    void on_reply(Client& c, ubus::Frame& f);
    int acl_call(Client& c, const ubus::MsgHeader& req, std::string_view method);

    // ----- events (events.cpp)
    int event_call(Client& c, std::string_view method, const ubus::MsgAttrs& a);
    int register_listener(Client& c, const ubus::MsgAttrs& a);
    int send_event(Client& c, const ubus::MsgAttrs& a);
    // Delivers an event to every listener object with a matching pattern, once per object,
    // skipping the sender's own objects.
    void broadcast(const Client* sender, std::string_view name, ubus::Bytes members);
    void object_event(std::string_view name, const Object& o);
    void forget_patterns(Object& o);

    // ----- subscriptions (subscriptions.cpp)
    void on_subscribe(Client& c, const ubus::Frame& f);
    void on_unsubscribe(Client& c, const ubus::Frame& f);
    void on_notify(Client& c, const ubus::Frame& f);
    void unsubscribe(Object& subscriber, Object& target);
    void tell_active(Object& target, bool active);
    void tell_unsubscribed(Object& subscriber, const Object& target);

    // ----- monitoring (monitor.cpp)
    int monitor_call(Client& c, std::string_view method);
    void stop_monitoring(Client& c);
    void monitor(const Client& c, bool sent, std::span<const iovec> frame);

    ubus::Loop& loop_;
    ubus::UniqueFd listener_;
    ubus::Loop::Id listener_watch_ = 0;
    ubus::Loop::Id backoff_ = 0;  // accepting paused for lack of descriptors

    std::unordered_map<std::uint32_t, std::unique_ptr<Client>> clients_;
    std::unordered_map<std::uint32_t, Object> objects_;
    std::unordered_map<std::uint32_t, ObjectType> types_;
    std::map<std::string, Object*, std::less<>> paths_;  // byte order, as lookups list them
    PatternIndex<Object*> listeners_;
    std::vector<Client*> monitors_;
    std::vector<Client*> dropped_;  // waiting to be torn down

    IdSource ids_;
    NameCache names_;
    std::uint16_t event_seq_ = 0;    // of event deliveries, broker-wide
    std::uint64_t event_count_ = 0;  // events broadcast so far

    // Reused message buffers, so building a message does not allocate once they have grown.
    ubus::MsgBuf reply_;    // answers built by the handlers
    ubus::MsgBuf fanout_;   // a message sent to many clients, patched per recipient
    ubus::MsgBuf monitor_;  // copies for monitors
    ubus::BlobBuf event_data_;
    std::vector<std::uint8_t> gather_;
};

}  // namespace ubusd

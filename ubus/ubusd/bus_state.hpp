// What the broker knows about its clients, their objects and the object types.
//
// Objects and clients refer to each other with plain pointers: every one of these records is
// owned by one of the Broker's tables, whose elements never move, and the Broker unlinks a record
// from everything that points at it before it erases it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "ubus/loop.hpp"
#include "ubus/wire.hpp"
#include "ubusd/out_queue.hpp"
#include "ubusd/peer_identity.hpp"

namespace ubusd {

struct Client;

// A method signature, shared by every object registered with its id.
struct ObjectType {
    std::uint32_t id = 0;
    std::vector<std::uint8_t> signature;  // the SIGNATURE payload exactly as it was registered
    std::uint32_t users = 0;
};

struct Object {
    std::uint32_t id = 0;
    Client* owner = nullptr;
    ObjectType* type = nullptr;         // nullptr: typeless (callable, never listed)
    const std::string* path = nullptr;  // the key in the path index; nullptr: anonymous
    std::vector<Object*> subscribers;   // objects watching this one
    std::vector<Object*> targets;       // objects this one watches
    std::vector<std::string> patterns;  // event patterns this object listens to
    std::uint16_t seq = 0;              // of the messages the broker itself sends about this object
    std::uint64_t last_event = 0;       // the event this listener was last given, against duplicates
};

struct Client {
    std::uint32_t id = 0;
    ubus::UniqueFd sock;
    ubus::Loop::Id watch = 0;
    ubus::FrameReader reader;
    OutQueue out;
    PeerIdentity peer;
    std::vector<Object*> objects;
    std::uint32_t interest = ubus::Loop::kRead;  // what the loop watches for
    // A listing that waits until the client has taken what it was sent so far. Meanwhile the
    // client's further requests wait too (it is not read from).
    struct PendingLookup {
        ubus::MsgHeader req;
        std::string prefix;  // of the paths selected; "" with `all` lists everything
        bool all = false;
        bool found = false;
        std::string resume;  // the next path to list
    };
    std::optional<PendingLookup> lookup;
    bool monitoring = false;
    std::uint16_t monitor_seq = 0;
    bool dead = false;  // disconnected; torn down once the current event is handled
};

}  // namespace ubusd

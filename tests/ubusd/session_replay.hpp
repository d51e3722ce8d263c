// Replays traffic captured on a gateway against our broker and compares what comes back.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "golden_session.hpp"
#include "raw_client.hpp"

namespace ubusd_test {

// One connection per label, opened and closed where the capture says. Every `>` message is sent
// with the capture's ids replaced by ours; every `<` message is read from that label's connection
// (connections are compared one by one: the capture's order across them is only approximate) and
// compared byte for byte. Ids are told apart from other bytes by value: every 4-byte aligned word
// of a message that equals a capture id must be the id our broker chose for it, learned where it
// first appears in a message from the broker (a HELLO, an ADD_OBJECT reply, ...).
class SessionReplay {
public:
    // `chunk`: send every message in pieces of that many bytes; 0 sends consecutive messages of
    // one connection as one block.
    SessionReplay(std::string socket, std::size_t chunk) : socket_(std::move(socket)), chunk_(chunk) {}

    // Ids that may appear in the steps (a capture's "ids in this capture" list).
    void add_ids(const std::vector<std::string>& hex_ids);
    // An id that a capture shows for the same object as another capture's id.
    void alias(std::uint32_t id, std::uint32_t same_as);

    void run(const std::vector<golden::Step>& steps);
    // Fails the test when a still open connection has unexpected frames waiting.
    void expect_drained();

    RawClient& conn(const std::string& label) { return *conns_.at(label); }
    std::uint32_t ours(std::uint32_t capture_id) const { return map_.at(resolve(capture_id)); }

private:
    void send_block(const std::vector<const golden::Step*>& block);
    void expect(const golden::Step& s);
    std::vector<std::uint8_t> substitute(const golden::Step& s);
    std::uint32_t resolve(std::uint32_t id) const;

    std::string socket_;
    std::size_t chunk_;
    std::set<std::uint32_t> ids_;
    std::map<std::uint32_t, std::uint32_t> map_;
    std::map<std::uint32_t, std::uint32_t> aliases_;
    std::map<std::string, std::unique_ptr<RawClient>> conns_;
    std::deque<std::string> fd_tokens_;  // contents of the pipes passed and not yet seen again
};

// A step written in the capture format: "<label> > <hex> [fd]" or "<label> < <hex> [fd]".
golden::Step step(const std::string& line);
std::uint32_t hex_id(const std::string& hex);

}  // namespace ubusd_test

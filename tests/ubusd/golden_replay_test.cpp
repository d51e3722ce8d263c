// Sessions captured on a gateway's bus, replayed against our broker: every message it sends must
// equal what the gateway's broker sent, byte for byte, with only the random ids differing.
#include <gtest/gtest.h>
#include <unistd.h>

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <sstream>

#include "broker_process.hpp"
#include "golden_session.hpp"
#include "pipe_text.hpp"
#include "raw_client.hpp"

namespace bus_test {
namespace {

using golden::Step;
using Steps = std::vector<Step>;
using Bytes = std::vector<std::uint8_t>;

std::uint32_t hex_id(const std::string& hex) {
    return static_cast<std::uint32_t>(std::stoul(hex, nullptr, 16));
}

// One connection per label, opened and closed where the capture says. Every `>` message is sent
// with the capture's ids replaced by ours; every `<` message is read from that label's connection
// (connections are compared one by one: the capture's order across them is only approximate).
// Ids are told apart from other bytes by value: every 4-byte aligned word that equals a capture
// id must be the id our broker chose for it, learned where it first comes from the broker.
class SessionReplay {
public:
    SessionReplay(std::string socket, std::size_t chunk) : socket_(std::move(socket)), chunk_(chunk) {}

    void add_ids(const std::vector<std::string>& hex_ids) {
        for (const auto& h : hex_ids) ids_.insert(hex_id(h));
    }
    // An id that a capture shows for the same object as another capture's id.
    void alias(const char* id, const char* same_as) {
        ids_.insert(hex_id(id));
        aliases_[hex_id(id)] = hex_id(same_as);
    }

    void run(const Steps& steps) {
        for (std::size_t i = 0; i < steps.size() && !::testing::Test::HasFatalFailure();) {
            const Step& s = steps[i++];
            if (s.kind == Step::ToBroker) {
                // With chunk 0, the messages one connection sends in a row go as one block; a
                // descriptor must start its own write.
                Bytes block = ours(s);
                while (chunk_ == 0 && !s.fd && i < steps.size() && steps[i].kind == Step::ToBroker &&
                       steps[i].label == s.label && !steps[i].fd) {
                    const Bytes more = ours(steps[i++]);
                    block.insert(block.end(), more.begin(), more.end());
                }
                send(s, block);
            } else if (s.kind == Step::Connect) {
                conns_[s.label] = std::make_unique<RawClient>(socket_, false);
            } else if (s.kind == Step::Close && conns_.contains(s.label)) {
                EXPECT_TRUE(conns_[s.label]->sync().empty()) << "unread frames on " << s.label;
                conns_.erase(s.label);
            } else if (s.kind == Step::FromBroker && conns_.contains(s.label)) {
                expect(s);  // (what a capture shows sent to a closed connection is not readable)
            }
        }
        if (::testing::Test::HasFatalFailure()) return;
        for (auto& [label, c] : conns_) EXPECT_TRUE(c->sync().empty()) << "unread frames on " << label;
    }

private:
    // The capture's message with our ids in place of the capture's. Ids not chosen yet are learned
    // from `got`, the broker's message in the same place.
    Bytes ours(const Step& s, const Bytes* got = nullptr) {
        Bytes out = s.bytes;
        for (std::size_t i = 0; i + 4 <= out.size(); i += 4) {
            const std::uint32_t w = ubus::wire::get32(out.data() + i);
            if (!ids_.contains(w)) continue;
            const std::uint32_t key = aliases_.contains(w) ? aliases_[w] : w;
            auto it = map_.find(key);
            if (it == map_.end() && got && got->size() == out.size()) {
                const std::uint32_t mine = ubus::wire::get32(got->data() + i);
                for (const auto& [capture, known] : map_) EXPECT_NE(known, mine) << "id handed out twice";
                it = map_.emplace(key, mine).first;
            }
            if (it != map_.end())
                ubus::wire::put32(out.data() + i, it->second);
            else if (!got)
                ADD_FAILURE() << "line " << s.line << ": id " << std::hex << w
                              << " used before the broker chose it";
        }
        return out;
    }

    void send(const Step& s, const Bytes& bytes) {
        ASSERT_TRUE(conns_.contains(s.label)) << "line " << s.line << ": no connection " << s.label;
        ubus::UniqueFd passed;
        if (s.fd) {  // a real pipe, so the far side can prove it got this very descriptor
            fd_tokens_.push_back("passed with line " + std::to_string(s.line));
            passed = pipe_holding(fd_tokens_.back());
        }
        conns_[s.label]->send(bytes, passed.get(), chunk_);
    }

    void expect(const Step& s) {
        auto got = conns_[s.label]->read();
        ASSERT_TRUE(got) << "line " << s.line << ": nothing arrived for " << s.label;
        EXPECT_EQ(golden::hex(got->bytes), golden::hex(ours(s, &got->bytes))) << "line " << s.line;
        EXPECT_EQ(static_cast<bool>(got->fd), s.fd) << "line " << s.line << ": descriptor";
        if (got->fd && s.fd && !fd_tokens_.empty()) {
            EXPECT_EQ(read_all(got->fd.get()), fd_tokens_.front())
                << "line " << s.line << ": not the one passed";
            fd_tokens_.pop_front();
        }
    }

    std::string socket_;
    std::size_t chunk_;  // every message is sent in pieces of this size (0: whole)
    std::set<std::uint32_t> ids_;
    std::map<std::uint32_t, std::uint32_t> map_, aliases_;
    std::map<std::string, std::unique_ptr<RawClient>> conns_;
    std::deque<std::string> fd_tokens_;  // contents of the pipes passed and not yet seen again
};

Step step(const std::string& line) {
    std::istringstream is(line);
    std::string label, arrow, hex;
    is >> label >> arrow >> hex;
    return {arrow == ">" ? Step::ToBroker : Step::FromBroker, label, golden::unhex(hex), false, 0};
}

Steps concat(std::initializer_list<Steps> parts) {
    Steps all;
    for (const Steps& p : parts) all.insert(all.end(), p.begin(), p.end());
    return all;
}

// The owner of "demo" that several captures call without showing it: the first exchange of the
// owner-side capture (connect, HELLO, ADD_OBJECT, DATA, STATUS).
Steps demo_owner() {
    Steps s = golden::read_session("invoke_owner_side.txt");
    s.resize(5);
    return s;
}

// The raw client's session calls "demo" of an owner the capture does not show; our demo owner
// stands in and answers the one call that reaches it.
Steps ping_and_errors() {
    Steps raw = golden::read_session("session_ping_and_errors.txt");
    auto call = std::find_if(raw.begin(), raw.end(), [](const Step& s) {
        return s.kind == Step::ToBroker && golden::hex(s.bytes).starts_with("0005000d");
    });
    raw.insert(call + 1, {step("srv < 0005000d12658fb3000000340300000823f81d430400000b6e6f6172677300000c00"
                               "0009726f6f74000000000d000009726f6f740000000007000004"),
                          step("srv > 0001000d12658fb30000001401000008000000000300000823f81d43")});
    return concat({demo_owner(), raw});
}

// The monitor capture shows only the monitor's connection. The traffic it reports (a lookup and a
// call of "demo" by client f7a6b046, answered by the demo owner) is made here.
Steps monitor() {
    const Steps mon = golden::read_session("session_monitor.txt");
    const Steps call = golden::read_session("session_call_with_data.txt");
    const Steps made = {
        {Step::Connect, "cli", {}, false, 0},
        step("cli < 00000000f7a6b04600000004"),
        step("cli > 0004000100000000000000100200000964656d6f00000000"),
        call[3],  // the lookup's DATA and STATUS
        call[4],
        step("cli > 0005000267b2db230000001c0300000867b2db230400000b6e6f61726773000007000004"),
        step("srv < 00050002f7a6b046000000340300000867b2db230400000b6e6f6172677300000c000009726f6f74000000"
             "000d000009726f6f740000000007000004"),
        step("srv > 00010002f7a6b0460000001401000008000000000300000867b2db23"),
        step("cli < 0001000267b2db230000001401000008000000000300000867b2db23"),
    };
    // The monitor registers (its first five steps), the traffic happens, then it reads the copies.
    return concat(
        {demo_owner(), Steps(mon.begin(), mon.begin() + 5), made, Steps(mon.begin() + 5, mon.end())});
}

struct Scenario {
    std::string name;
    std::vector<std::string> files;  // replayed one after the other; their ids apply
    bool demo_owner = false;         // the captures call "demo" without showing its owner
    std::vector<std::pair<const char*, const char*>> aliases = {};  // same object, other capture's id
    std::function<Steps()> make = {};                               // instead of replaying `files`
};

void PrintTo(const Scenario& s, std::ostream* os) {
    *os << s.name;
}

const Scenario kScenarios[] = {
    {"list_verbose", {"session_list_verbose.txt"}},
    // The owner-side capture is these two calls seen from the owner (checked below).
    {"calls_and_owner_side", {"session_call_with_data.txt", "session_call_missing_method.txt"}, true},
    {"call_missing_object", {"session_call_missing_object.txt"}},
    {"call_types", {"session_call_types.txt"}, true},
    {"add_remove_objects", {"session_add_remove_objects.txt"}},
    {"events", {"session_events.txt"}},
    {"owner_disconnect", {"session_owner_disconnect.txt"}},
    {"subscribe_notify", {"session_subscribe_notify.txt"}},
    {"timeout_late_reply", {"session_timeout_late_reply.txt"}},
    {"fd_passing", {"session_fd_passing.txt"}},
    {"ping_and_errors",
     {"session_ping_and_errors.txt"},
     false,
     {{"23f81d43", "9a1af886"}, {"7d8113c0", "4403977e"}},
     ping_and_errors},
    {"monitor",
     {"session_monitor.txt"},
     false,
     {{"43afb446", "71ec55d8"}, {"67b2db23", "9a1af886"}, {"230575d8", "4403977e"}, {"f7a6b046", "f7a6b046"}},
     monitor},
};

Steps steps_of(const Scenario& s) {
    if (s.make) return s.make();
    Steps all = s.demo_owner ? demo_owner() : Steps{};
    for (const auto& f : s.files) all = concat({all, golden::read_session(f)});
    return all;
}

class GoldenReplay : public ::testing::TestWithParam<std::tuple<Scenario, std::size_t>> {};

TEST_P(GoldenReplay, BrokerAnswersLikeTheGatewayBroker) {
    // The captures were made by root: the broker forwards the caller's user and group names.
    if (::getuid() != 0 || ::getgid() != 0) GTEST_SKIP() << "the captures show user and group root";
    const auto& [scenario, chunk] = GetParam();
    BrokerProcess broker;
    SessionReplay replay(broker.socket(), chunk);
    replay.add_ids(golden::capture_ids("invoke_owner_side.txt"));
    for (const auto& f : scenario.files) replay.add_ids(golden::capture_ids(f));
    for (const auto& [id, same_as] : scenario.aliases) replay.alias(id, same_as);
    replay.run(steps_of(scenario));
}

// Split reads (one byte at a time) and coalesced ones (a connection's messages in one write).
INSTANTIATE_TEST_SUITE_P(Captures, GoldenReplay,
                         ::testing::Combine(::testing::ValuesIn(kScenarios), ::testing::Values(0, 1)),
                         [](const auto& p) {
                             return std::get<0>(p.param).name +
                                    (std::get<1>(p.param) ? "_byte_by_byte" : "_whole");
                         });

}  // namespace
}  // namespace bus_test

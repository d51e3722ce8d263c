// Sessions captured on a gateway's bus, replayed against our broker: every message it sends must
// equal what the gateway's broker sent, byte for byte, with only the random ids differing.
#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>
#include <tuple>

#include "broker_process.hpp"
#include "session_replay.hpp"

namespace ubusd_test {
namespace {

using golden::Step;
using Steps = std::vector<Step>;

Steps session(const char* file) {
    return golden::read_session(file);
}

Steps concat(std::initializer_list<Steps> parts) {
    Steps all;
    for (const Steps& p : parts) all.insert(all.end(), p.begin(), p.end());
    return all;
}

// The owner of "demo" that several captures call without showing its registration: the first
// exchange of the owner-side capture (connect, HELLO, ADD_OBJECT, DATA, STATUS).
Steps demo_owner() {
    Steps s = session("invoke_owner_side.txt");
    s.resize(5);
    return s;
}

// The raw client's session calls "demo" (object 23f81d43) of an owner the capture does not show;
// our demo owner stands in and answers the one call that reaches it.
Steps ping_and_errors() {
    Steps raw = session("session_ping_and_errors.txt");
    auto call = std::find_if(raw.begin(), raw.end(), [](const Step& s) {
        return s.kind == Step::ToBroker && golden::hex(s.bytes).starts_with("0005000d");
    });
    raw.insert(
        call + 1,
        {step("srv < 0005000d12658fb3000000340300000823f81d430400000b6e6f6172677300000c000009726f6f7400"
              "0000000d000009726f6f740000000007000004"),
         step("srv > 0001000d12658fb300000014010000080000000003000008"
              "23f81d43")});
    return concat({demo_owner(), raw});
}

// The monitor capture shows only the monitor's connection. The traffic it reports (a lookup and
// a call of "demo" by client f7a6b046, answered by the demo owner) is made here.
Steps monitor() {
    const Steps mon = session("session_monitor.txt");
    const Steps call = session("session_call_with_data.txt");
    const Steps made = {
        {Step::Connect, "cli", {}, false, 0},
        step("cli < 00000000f7a6b04600000004"),
        step("cli > 0004000100000000000000100200000964656d6f00000000"),
        call[3],  // the lookup's DATA and STATUS
        call[4],
        step("cli > 0005000267b2db230000001c0300000867b2db230400000b6e6f61726773000007000004"),
        step("srv < 00050002f7a6b046000000340300000867b2db230400000b6e6f6172677300000c000009726f6f74000000"
             "000d000009726f6f740000000007000004"),
        step("srv > 00010002f7a6b04600000014010000080000000003000008"
             "67b2db23"),
        step("cli < 0001000267b2db2300000014010000080000000003000008"
             "67b2db23"),
    };
    // The monitor registers (first five steps), then the traffic happens, then it reads the copies.
    return concat(
        {demo_owner(), Steps(mon.begin(), mon.begin() + 5), made, Steps(mon.begin() + 5, mon.end())});
}

struct Scenario {
    const char* name;
    std::function<Steps()> steps;
    std::vector<const char*> id_files;                         // whose "ids in this capture" apply
    std::vector<std::pair<const char*, const char*>> aliases;  // same object, another capture's id
};

const Scenario kScenarios[] = {
    {"list_verbose", [] { return session("session_list_verbose.txt"); }, {"session_list_verbose.txt"}, {}},
    {"call_with_data",
     [] {
         return concat({demo_owner(), session("session_call_with_data.txt")});
     },
     {"session_call_with_data.txt"},
     {}},
    {"call_missing_method",
     [] {
         return concat({demo_owner(), session("session_call_missing_method.txt")});
     },
     {"session_call_missing_method.txt"},
     {}},
    {"call_missing_object",
     [] { return session("session_call_missing_object.txt"); },
     {"session_call_missing_object.txt"},
     {}},
    {"call_types",
     [] {
         return concat({demo_owner(), session("session_call_types.txt")});
     },
     {"session_call_types.txt"},
     {}},
    // The owner-side capture is these two calls seen from the owner (checked below).
    {"invoke_owner_side",
     [] {
         return concat({demo_owner(), session("session_call_with_data.txt"),
                        session("session_call_missing_method.txt")});
     },
     {"session_call_with_data.txt", "session_call_missing_method.txt"},
     {}},
    {"add_remove_objects",
     [] { return session("session_add_remove_objects.txt"); },
     {"session_add_remove_objects.txt"},
     {}},
    {"events", [] { return session("session_events.txt"); }, {"session_events.txt"}, {}},
    {"owner_disconnect",
     [] { return session("session_owner_disconnect.txt"); },
     {"session_owner_disconnect.txt"},
     {}},
    {"subscribe_notify",
     [] { return session("session_subscribe_notify.txt"); },
     {"session_subscribe_notify.txt"},
     {}},
    {"timeout_late_reply",
     [] { return session("session_timeout_late_reply.txt"); },
     {"session_timeout_late_reply.txt"},
     {}},
    {"fd_passing", [] { return session("session_fd_passing.txt"); }, {"session_fd_passing.txt"}, {}},
    {"ping_and_errors",
     ping_and_errors,
     {"session_ping_and_errors.txt"},
     {{"23f81d43", "9a1af886"}, {"7d8113c0", "4403977e"}}},
    {"monitor",
     monitor,
     {"session_monitor.txt"},
     {{"43afb446", "71ec55d8"},
      {"67b2db23", "9a1af886"},
      {"230575d8", "4403977e"},
      {"f7a6b046", "f7a6b046"}}},
};

void PrintTo(const Scenario& s, std::ostream* os) {
    *os << s.name;
}

class GoldenReplay : public ::testing::TestWithParam<std::tuple<Scenario, std::size_t>> {};

TEST_P(GoldenReplay, BrokerAnswersLikeTheGatewayBroker) {
    // The captures were made by root: the broker forwards the caller's user and group names.
    if (::getuid() != 0 || ::getgid() != 0) GTEST_SKIP() << "the captures show user and group root";
    const auto& [scenario, chunk] = GetParam();
    BrokerProcess broker;
    SessionReplay replay(broker.socket(), chunk);
    replay.add_ids(golden::capture_ids("invoke_owner_side.txt"));
    for (const char* f : scenario.id_files) replay.add_ids(golden::capture_ids(f));
    for (const auto& [id, same_as] : scenario.aliases) replay.alias(hex_id(id), hex_id(same_as));
    replay.run(scenario.steps());
    if (HasFatalFailure()) return;
    replay.expect_drained();
}

INSTANTIATE_TEST_SUITE_P(Captures, GoldenReplay,
                         ::testing::Combine(::testing::ValuesIn(kScenarios), ::testing::Values(0, 1)),
                         [](const auto& p) {
                             return std::string(std::get<0>(p.param).name) +
                                    (std::get<1>(p.param) ? "_byte_by_byte" : "_whole");
                         });

TEST(GoldenReplay, OwnerSideCaptureIsWhatTheCallReplaysShowTheOwner) {
    auto owner_lines = [](const Steps& steps) {
        std::vector<std::string> out;
        for (const Step& s : steps)
            if (s.label == "srv" && s.kind != Step::Connect) out.push_back(golden::hex(s.bytes));
        return out;
    };
    const Scenario& calls =
        *std::find_if(std::begin(kScenarios), std::end(kScenarios),
                      [](const Scenario& s) { return s.name == std::string("invoke_owner_side"); });
    EXPECT_EQ(owner_lines(calls.steps()), owner_lines(session("invoke_owner_side.txt")));
}

}  // namespace
}  // namespace ubusd_test

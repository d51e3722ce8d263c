// Our client library calling through our broker: many callers at once, and owners busy in a call
// of their own. (Late replies and owners that leave: the golden replays.)
#include <gtest/gtest.h>

#include <future>
#include <optional>

#include "broker_process.hpp"
#include "raw_client.hpp"
#include "serving_thread.hpp"
#include "ubus/json.hpp"

namespace bus_test {
namespace {

using V = std::vector<std::string>;

// Every reply of one call, as compact JSON, and then its status.
V call(ubus::Connection& bus, std::uint32_t obj, std::string_view method, ubus::Bytes args = {}) {
    V out;
    const int status = bus.invoke(
        obj, method, args, [&](ubus::Bytes data) { ubus::json_format_list(out.emplace_back(), data, false); },
        10000);
    out.push_back(std::to_string(status));
    return out;
}

TEST(Calls, ConcurrentClientsEachGetTheirOwnAnswers) {
    BrokerProcess broker;
    ServingThread owner(broker.socket());
    const std::uint32_t svc =
        owner.add("svc", {{"echo", {}, [](ubus::Request& req) { return req.reply(req.args()); }}});
    owner.start();
    constexpr int kClients = 8, kCalls = 100;
    std::vector<std::future<int>> wrong;
    for (int t = 0; t < kClients; ++t) {
        wrong.push_back(std::async(std::launch::async, [&, t] {
            ubus::Connection mine;
            if (mine.connect(broker.socket()) != ubus::kOk) return kCalls;
            int mismatches = 0;
            for (int i = 0; i < kCalls; ++i) {
                const std::string args =
                    R"({"t":)" + std::to_string(t) + R"(,"i":)" + std::to_string(i) + "}";
                ubus::BlobBuf b;
                ubus::json_load(b, args);
                mismatches += call(mine, svc, "echo", b.members()) != V{args, "0"};
            }
            return mismatches;
        }));
    }
    for (auto& w : wrong) EXPECT_EQ(w.get(), 0);
}

TEST(CallsToBusyOwners, AnOwnerWaitingInItsOwnCallAnswersOtherCallsOnlyAfterwards) {
    BrokerProcess broker;
    // "a" relays to "b", which holds the call until told to go on.
    std::optional<ubus::DeferredReply> held;
    std::promise<void> b_called;
    V a_log;
    ServingThread b_owner(broker.socket()), a_owner(broker.socket());
    const std::uint32_t b =
        b_owner.add("b", {{"wait",
                           {},
                           [&](ubus::Request& req) {
                               held = req.defer();
                               b_called.set_value();
                               return ubus::kOk;
                           }},
                          {"go", {}, [&](ubus::Request&) { return held->complete(ubus::kOk); }}});
    const auto log = [&](ubus::Request& req) {
        // The request must still be intact after the nested wait read more messages.
        const int status = req.method() == "relay" ? a_owner.bus().invoke(b, "wait", {}, nullptr, 10000) : -1;
        a_log.push_back(std::string(req.method()) + " " + std::to_string(status));
        return ubus::kOk;
    };
    const std::uint32_t a = a_owner.add("a", {{"relay", {}, log}, {"hello", {}, log}});
    b_owner.start();
    a_owner.start();

    ubus::Connection caller;
    ASSERT_EQ(caller.connect(broker.socket()), ubus::kOk);
    auto relay = std::async(std::launch::async, [&] { return call(caller, a, "relay"); });
    b_called.get_future().wait();
    // The broker forwards one client's messages in order: "hello" is in a's socket before "go"
    // even reaches b, so it arrives while a still waits.
    RawClient other(broker.socket());
    ubus::MsgBuf hello = invoke_msg(1, a, "hello"), go = invoke_msg(2, b, "go");
    other.send(hello);
    other.send(go);
    EXPECT_EQ(relay.get(), V{"0"});
    for (int answers = 0; answers < 2; ++answers) {
        const auto answer = other.read(10s);
        ASSERT_TRUE(answer);
        EXPECT_EQ(answer->hdr().type, ubus::MsgType::Status);
    }
    a_owner.stop();
    EXPECT_EQ(a_log, (V{"relay 0", "hello -1"}));
}

}  // namespace
}  // namespace bus_test

// Our client library calling through our broker: replies and statuses, missing targets, late
// replies, many callers at once, owners that vanish or are busy in a call of their own.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <future>
#include <optional>
#include <thread>

#include "broker_process.hpp"
#include "raw_client.hpp"
#include "serving_thread.hpp"
#include "ubus/json.hpp"

namespace bus_test {
namespace {

using V = std::vector<std::string>;

// Every reply of one call, as compact JSON, and then its status.
V call(ubus::Connection& bus, std::uint32_t obj, std::string_view method, ubus::Bytes args = {},
       int timeout_ms = 10000) {
    V out;
    const int status = bus.invoke(
        obj, method, args, [&](ubus::Bytes data) { ubus::json_format_list(out.emplace_back(), data, false); },
        timeout_ms);
    out.push_back(std::to_string(status));
    return out;
}

// "svc" on a serving thread: "echo" answers its arguments; "hold" keeps the call, which "release"
// completes with a late reply just before answering itself.
class Calls : public ::testing::Test {
protected:
    BrokerProcess broker;
    ubus::Connection caller;
    std::optional<ubus::DeferredReply> held;  // outlives the serving thread
    ServingThread owner{broker.socket()};
    std::uint32_t svc =
        owner.add("svc", {{"echo", {}, [](ubus::Request& req) { return req.reply(req.args()); }},
                          {"hold",
                           {},
                           [this](ubus::Request& req) {
                               held = req.defer();
                               return ubus::kOk;
                           }},
                          {"release", {}, [this](ubus::Request& req) {
                               ubus::BlobBuf late, now;
                               late.add_string("from", "hold");
                               now.add_string("from", "release");
                               if (held) {
                                   held->reply(late);
                                   held->complete(ubus::kPermissionDenied);
                               }
                               return req.reply(now);
                           }}});

    void SetUp() override {
        ASSERT_EQ(caller.connect(broker.socket()), ubus::kOk);
        owner.start();
    }
};

TEST_F(Calls, AReplyArrivingAfterTheTimeoutNeverReachesALaterCall) {
    EXPECT_EQ(call(caller, svc, "hold", {}, 200), V{"7"});
    EXPECT_EQ(call(caller, svc, "release"), (V{R"({"from":"release"})", "0"}));
}

TEST_F(Calls, ConcurrentClientsEachGetTheirOwnAnswers) {
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

TEST(CallsToVanishingOwners, CallersTimeOutAndTheObjectIsGone) {
    BrokerProcess broker;
    const pid_t pid = ::fork();
    if (pid == 0) {
        // The owner process dies inside the handler, with the call unanswered.
        ubus::Connection own;
        const auto type = ubus::ObjectType::make({{"die", {}, [](ubus::Request&) -> int { ::_exit(0); }}});
        if (own.connect(broker.socket()) != ubus::kOk ||
            own.add_object("vanishing", type).status != ubus::kOk)
            ::_exit(1);
        while (own.dispatch(-1) == ubus::kOk) {
        }
        ::_exit(1);
    }
    ubus::Connection caller;
    ASSERT_EQ(caller.connect(broker.socket()), ubus::kOk);
    std::uint32_t obj = 0;
    for (int i = 0; i < 500 && caller.lookup_id("vanishing", obj) != ubus::kOk; ++i)
        std::this_thread::sleep_for(10ms);
    ASSERT_NE(obj, 0u);
    bool removed = false;
    ASSERT_EQ(
        caller.listen("ubus.object.remove", [&](std::string_view, ubus::Bytes) { removed = true; }).status,
        ubus::kOk);
    EXPECT_EQ(call(caller, obj, "die", {}, 500), V{"7"});
    int status = 0;
    ::waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    for (int waits = 0; !removed && waits < 100; ++waits) caller.dispatch(100);
    EXPECT_TRUE(removed) << "no ubus.object.remove";
    EXPECT_EQ(caller.lookup("vanishing", nullptr), ubus::kNotFound);
    EXPECT_EQ(call(caller, obj, "die"), V{"4"});
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

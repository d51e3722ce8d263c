// Our client library calling through our broker: replies and statuses, missing targets, late
// replies, many callers at once, owners that vanish or are busy in a call of their own.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <future>
#include <optional>

#include "broker_process.hpp"
#include "raw_client.hpp"
#include "serving_thread.hpp"
#include "ubus/json.hpp"

using namespace std::chrono_literals;

namespace bus_test {
namespace {

using ubus::Type;

constexpr ubus::Policy kCount[] = {{"n", Type::Int32}, {"status", Type::Int32}};
constexpr ubus::Policy kPair[] = {{"t", Type::Int32}, {"i", Type::Int32}};

std::string json_of(ubus::Bytes members) {
    std::string text;
    ubus::json_format_list(text, members, false);
    return text;
}

// Every reply of one call, as compact JSON, and its status.
struct CallResult {
    std::vector<std::string> replies;
    int status = -1;
};
const ubus::BlobBuf kNoArgs;

CallResult call(ubus::Connection& bus, std::uint32_t obj, std::string_view method,
                const ubus::BlobBuf& args = kNoArgs, int timeout_ms = 10000) {
    CallResult r;
    r.status = bus.invoke(
        obj, method, args.members(), [&](ubus::Bytes data) { r.replies.push_back(json_of(data)); },
        timeout_ms);
    return r;
}

ubus::BlobBuf counted(int n, int status) {
    ubus::BlobBuf b;
    b.add_i32("n", n);
    b.add_i32("status", status);
    return b;
}

class Calls : public ::testing::Test {
protected:
    ubusd_test::BrokerProcess broker;
    ubus::Connection caller;
    void SetUp() override { ASSERT_EQ(caller.connect(broker.socket()), ubus::kOk); }
};

TEST_F(Calls, EveryReplyAndTheOwnersStatusReachTheCallerAndMissingTargetsAreReported) {
    ServingThread owner(broker.socket());
    // "count" sends n replies {"i":k} and ends with the status asked for.
    const std::uint32_t svc = owner.add("svc", {{"count", kCount, [](ubus::Request& req) {
                                                     const auto args = ubus::parse(kCount, req.args());
                                                     for (int k = 0; k < args[0].as_i32(); ++k) {
                                                         ubus::BlobBuf one;
                                                         one.add_i32("i", k);
                                                         req.reply(one);
                                                     }
                                                     return args[1].as_i32();
                                                 }}});
    owner.start();

    std::uint32_t found = 0;
    ASSERT_EQ(caller.lookup_id("svc", found), ubus::kOk);
    EXPECT_EQ(found, svc);
    CallResult r = call(caller, svc, "count", counted(3, ubus::kOk));
    EXPECT_EQ(r.status, ubus::kOk);
    EXPECT_EQ(r.replies, (std::vector<std::string>{R"({"i":0})", R"({"i":1})", R"({"i":2})"}));
    r = call(caller, svc, "count", counted(1, ubus::kNotSupported));
    EXPECT_EQ(r.status, ubus::kNotSupported);
    EXPECT_EQ(r.replies.size(), 1u);
    r = call(caller, svc, "count", counted(0, -3));
    EXPECT_EQ(r.status, -3) << "any status travels unchanged";

    EXPECT_EQ(call(caller, svc, "nosuch").status, ubus::kMethodNotFound);
    EXPECT_EQ(call(caller, svc + 1, "count").status, ubus::kNotFound);
    EXPECT_EQ(caller.lookup_id("nothere", found), ubus::kNotFound);
}

TEST_F(Calls, AReplyArrivingAfterTheTimeoutNeverReachesALaterCall) {
    ServingThread owner(broker.socket());
    std::optional<ubus::DeferredReply> held;
    const std::uint32_t svc =
        owner.add("svc", {{"slow",
                           {},
                           [&](ubus::Request& req) {
                               held = req.defer();
                               return ubus::kOk;
                           }},
                          // Answers the held call first, so its late reply is on the way before this one.
                          {"fast", {}, [&](ubus::Request& req) {
                               ubus::BlobBuf late;
                               late.add_string("from", "slow");
                               if (held) {
                                   held->reply(late);
                                   held->complete(ubus::kPermissionDenied);
                               }
                               ubus::BlobBuf now;
                               now.add_string("from", "fast");
                               req.reply(now);
                               return ubus::kOk;
                           }}});
    owner.start();

    const CallResult timed_out = call(caller, svc, "slow", kNoArgs, 200);
    EXPECT_EQ(timed_out.status, ubus::kTimeout);
    EXPECT_TRUE(timed_out.replies.empty());
    const CallResult next = call(caller, svc, "fast");
    EXPECT_EQ(next.status, ubus::kOk);
    EXPECT_EQ(next.replies, std::vector<std::string>{R"({"from":"fast"})"});
}

TEST_F(Calls, ConcurrentClientsEachGetTheirOwnAnswers) {
    ServingThread owner(broker.socket());
    const std::uint32_t svc = owner.add("echo", {{"echo", kPair, [](ubus::Request& req) {
                                                      req.reply(req.args());
                                                      return ubus::kOk;
                                                  }}});
    owner.start();

    constexpr int kClients = 8, kCalls = 100;
    std::vector<std::future<int>> wrong;
    for (int t = 0; t < kClients; ++t) {
        wrong.push_back(std::async(std::launch::async, [&, t] {
            ubus::Connection mine;
            if (mine.connect(broker.socket()) != ubus::kOk) return kCalls;
            int mismatches = 0;
            for (int i = 0; i < kCalls; ++i) {
                ubus::BlobBuf args;
                args.add_i32("t", t);
                args.add_i32("i", i);
                const CallResult r = call(mine, svc, "echo", args);
                mismatches +=
                    r.status != ubus::kOk || r.replies != std::vector<std::string>{json_of(args.members())};
            }
            return mismatches;
        }));
    }
    for (auto& w : wrong) EXPECT_EQ(w.get(), 0);
}

TEST_F(Calls, CallersOfAnOwnerThatVanishesMidCallTimeOutAndTheObjectIsGone) {
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t pid = ::fork();
    if (pid == 0) {
        // The owner process dies inside the handler, with the call unanswered.
        ubus::Connection own;
        if (own.connect(broker.socket()) != ubus::kOk) ::_exit(1);
        const auto type = ubus::ObjectType::make({{"die", {}, [](ubus::Request&) -> int { ::_exit(0); }}});
        if (own.add_object("vanishing", type).status != ubus::kOk) ::_exit(1);
        (void)!::write(ready[1], "r", 1);
        while (own.dispatch(-1) == ubus::kOk) {
        }
        ::_exit(1);
    }
    ::close(ready[1]);
    char r;
    ASSERT_EQ(::read(ready[0], &r, 1), 1);
    ::close(ready[0]);

    bool removed = false;
    ASSERT_EQ(
        caller.listen("ubus.object.remove", [&](std::string_view, ubus::Bytes) { removed = true; }).status,
        ubus::kOk);
    std::uint32_t obj = 0;
    ASSERT_EQ(caller.lookup_id("vanishing", obj), ubus::kOk);
    EXPECT_EQ(call(caller, obj, "die", kNoArgs, 500).status, ubus::kTimeout);
    int status = 0;
    ::waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    for (int waits = 0; !removed && waits < 100; ++waits) caller.dispatch(100);
    EXPECT_TRUE(removed) << "no ubus.object.remove";
    EXPECT_EQ(caller.lookup("vanishing", nullptr), ubus::kNotFound);
    EXPECT_EQ(call(caller, obj, "die").status, ubus::kNotFound);
}

TEST_F(Calls, AnOwnerWaitingInItsOwnCallAnswersOtherCallsOnlyAfterwards) {
    // "a" relays to "b", which holds the call until told to go on.
    ServingThread b_owner(broker.socket());
    std::optional<ubus::DeferredReply> held;
    std::promise<void> b_called;
    const std::uint32_t b = b_owner.add("b", {{"wait",
                                               {},
                                               [&](ubus::Request& req) {
                                                   held = req.defer();
                                                   b_called.set_value();
                                                   return ubus::kOk;
                                               }},
                                              {"go", {}, [&](ubus::Request&) {
                                                   if (held) held->complete(ubus::kOk);
                                                   return ubus::kOk;
                                               }}});
    ServingThread a_owner(broker.socket());
    std::vector<std::string> a_log;
    const std::uint32_t a =
        a_owner.add("a", {{"relay",
                           {},
                           [&](ubus::Request&) {
                               const int status = a_owner.bus().invoke(b, "wait", {}, nullptr, 10000);
                               a_log.push_back("relay answered " + std::to_string(status));
                               return ubus::kOk;
                           }},
                          {"hello", {}, [&](ubus::Request&) {
                               a_log.emplace_back("hello");
                               return ubus::kOk;
                           }}});
    b_owner.start();
    a_owner.start();

    auto relay = std::async(std::launch::async, [&] { return call(caller, a, "relay").status; });
    b_called.get_future().wait();
    // The broker forwards one client's messages in order: "hello" is in a's socket before "go"
    // even reaches b, so it arrives while a still waits.
    ubusd_test::RawClient other(broker.socket());
    ubus::MsgBuf hello = ubusd_test::invoke_msg(1, a, "hello");
    ubus::MsgBuf go = ubusd_test::invoke_msg(2, b, "go");
    other.send(hello);
    other.send(go);
    EXPECT_EQ(relay.get(), ubus::kOk);
    for (int answers = 0; answers < 2; ++answers) {
        const auto answer = other.read(10s);
        ASSERT_TRUE(answer);
        EXPECT_EQ(answer->hdr().type, ubus::MsgType::Status);
    }
    a_owner.stop();
    b_owner.stop();
    EXPECT_EQ(a_log, (std::vector<std::string>{"relay answered 0", "hello"}));
}

}  // namespace
}  // namespace bus_test

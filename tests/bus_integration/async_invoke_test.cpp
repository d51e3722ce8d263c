// Calls that do not wait: the caller's loop keeps serving while a call is open, and every call ends
// exactly once — answered, timed out, or cut off with the broker.
#include <gtest/gtest.h>

#include <future>
#include <thread>

#include "broker_process.hpp"
#include "serving_thread.hpp"
#include "ubus/json.hpp"
#include "ubus/loop.hpp"

namespace bus_test {
namespace {

struct Outcome {
    int status = -1;
    std::vector<std::string> data;  // each DATA reply as compact JSON
    int calls = 0;
};

class AsyncInvoke : public ::testing::Test {
protected:
    BrokerProcess broker;
    ubus::Loop loop;
    ubus::Connection caller;
    ServingThread owner{broker.socket()};
    std::uint32_t svc = owner.add("svc", {{"echo", {}, [](ubus::Request& req) { return req.reply(req.args()); }}});

    void SetUp() override {
        ASSERT_EQ(caller.connect(broker.socket()), ubus::kOk);
        caller.attach(loop);
        owner.start();
    }

    ubus::AsyncCallback record(Outcome& out, bool stop_loop = true) {
        return [this, &out, stop_loop](int status, std::span<const std::vector<std::uint8_t>> data) {
            out.status = status;
            ++out.calls;
            for (const auto& d : data) ubus::json_format_list(out.data.emplace_back(), d, false);
            if (stop_loop) loop.stop();
        };
    }
};

TEST_F(AsyncInvoke, RepliesArriveThroughTheLoopWhileTheCallerKeepsServing) {
    // The caller owns an object too: while its own call is open, another client's call to it is
    // answered from the same loop.
    const auto mine = caller.add_object(
        "mine", ubus::ObjectType::make({{"ping", {}, [](ubus::Request& req) {
                                             ubus::BlobBuf b;
                                             b.add_string("pong", "yes");
                                             return req.reply(b);
                                         }}}));
    ASSERT_EQ(mine.status, ubus::kOk);

    ubus::BlobBuf args;
    args.add_string("x", "1");
    Outcome out;
    ASSERT_EQ(caller.invoke_async(svc, "echo", args.members(), record(out, false), 5000), ubus::kOk);
    EXPECT_EQ(out.calls, 0) << "completed before the loop ran";

    std::future<int> other = std::async(std::launch::async, [&] {
        ubus::Connection c;
        if (c.connect(broker.socket()) != ubus::kOk) return -1;
        return c.invoke(mine.id, "ping", {}, nullptr, 5000);
    });
    // Keep running until both the call and the other client are done. (`check` outlives the loop
    // run: each timer holds a copy that refers to it.)
    std::function<void()> check;
    check = [&] {
        if (out.calls > 0 && other.wait_for(std::chrono::seconds(0)) == std::future_status::ready)
            loop.stop();
        else
            loop.add_timer(std::chrono::milliseconds(5), check);
    };
    loop.add_timer(std::chrono::milliseconds(0), check);
    loop.run();
    EXPECT_EQ(other.get(), ubus::kOk);
    EXPECT_EQ(out.calls, 1);
    EXPECT_EQ(out.status, ubus::kOk);
    EXPECT_EQ(out.data, std::vector<std::string>{R"({"x":"1"})"});
}

TEST_F(AsyncInvoke, UnansweredCallTimesOutOnceAndALateReplyIsIgnored) {
    owner.stop();
    ubus::Connection silent;  // owns an object whose calls are never answered while it is not read
    ASSERT_EQ(silent.connect(broker.socket()), ubus::kOk);
    const auto obj = silent.add_object("silent", ubus::ObjectType::make({{"wait", {}, [](ubus::Request&) {
                                                                             return ubus::kOk;
                                                                         }}}));
    ASSERT_EQ(obj.status, ubus::kOk);

    Outcome out;
    ASSERT_EQ(caller.invoke_async(obj.id, "wait", {}, record(out), 100), ubus::kOk);
    loop.run();
    EXPECT_EQ(out.status, ubus::kTimeout);
    // Now it answers. A round trip of its own makes sure the broker has passed the reply on, and one
    // of the caller's makes sure the caller has read it; what the loop then has to do, it does
    // before a timer added last.
    silent.dispatch(1000);
    std::uint32_t id = 0;
    ASSERT_EQ(silent.lookup_id("silent", id), ubus::kOk);
    ASSERT_EQ(caller.lookup_id("silent", id), ubus::kOk);
    loop.add_timer(std::chrono::milliseconds(0), [&] { loop.stop(); });
    loop.run();
    EXPECT_EQ(out.calls, 1) << "the late reply was reported as a second end of the call";
}

TEST_F(AsyncInvoke, OpenCallEndsWhenTheBrokerGoesAndUnsendableCallsAreRefused) {
    owner.stop();
    ubus::Connection silent;
    ASSERT_EQ(silent.connect(broker.socket()), ubus::kOk);
    const auto obj = silent.add_object("silent", ubus::ObjectType::make({{"wait", {}, [](ubus::Request&) {
                                                                             return ubus::kOk;
                                                                         }}}));
    Outcome out;
    ASSERT_EQ(caller.invoke_async(obj.id, "wait", {}, record(out), 0), ubus::kOk);
    broker.stop();
    loop.run();
    EXPECT_EQ(out.status, ubus::kConnectionFailed);
    EXPECT_EQ(out.calls, 1);

    ubus::Connection detached;  // never attached to a loop: nothing could complete the call
    EXPECT_NE(detached.invoke_async(1, "x", {}, record(out), 100), ubus::kOk);
}

}  // namespace
}  // namespace bus_test

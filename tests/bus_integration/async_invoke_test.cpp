// Calls that do not wait: the answer comes through the caller's loop, and every call ends
// exactly once — answered, timed out, or cut off with the broker.
#include <gtest/gtest.h>

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
    ubus::Connection caller, silent;  // `silent` owns an object whose calls it never reads
    ServingThread owner{broker.socket()};
    std::uint32_t svc =
        owner.add("svc", {{"echo", {}, [](ubus::Request& req) { return req.reply(req.args()); }}});
    std::uint32_t mute = 0;
    Outcome out;

    void SetUp() override {
        ASSERT_EQ(caller.connect(broker.socket()), ubus::kOk);
        caller.attach(loop);
        owner.start();
        ASSERT_EQ(silent.connect(broker.socket()), ubus::kOk);
        const auto obj = silent.add_object(
            "silent", ubus::ObjectType::make({{"wait", {}, [](ubus::Request&) { return ubus::kOk; }}}));
        ASSERT_EQ(obj.status, ubus::kOk);
        mute = obj.id;
    }

    ubus::AsyncCallback record() {
        return [this](int status, std::span<const std::vector<std::uint8_t>> data) {
            out.status = status;
            ++out.calls;
            for (const auto& d : data) ubus::json_format_list(out.data.emplace_back(), d, false);
            loop.stop();
        };
    }
};

TEST_F(AsyncInvoke, RepliesArriveThroughTheLoop) {
    ubus::BlobBuf args;
    args.add_string("x", "1");
    ASSERT_EQ(caller.invoke_async(svc, "echo", args.members(), record(), 5000), ubus::kOk);
    EXPECT_EQ(out.calls, 0) << "completed before the loop ran";
    loop.run();
    EXPECT_EQ(out.calls, 1);
    EXPECT_EQ(out.status, ubus::kOk);
    EXPECT_EQ(out.data, std::vector<std::string>{R"({"x":"1"})"});
}

TEST_F(AsyncInvoke, UnansweredCallTimesOutOnceAndALateReplyIsIgnored) {
    ASSERT_EQ(caller.invoke_async(mute, "wait", {}, record(), 100), ubus::kOk);
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
    ASSERT_EQ(caller.invoke_async(mute, "wait", {}, record(), 0), ubus::kOk);
    broker.stop();
    loop.run();
    EXPECT_EQ(out.status, ubus::kConnectionFailed);
    EXPECT_EQ(out.calls, 1);

    ubus::Connection detached;  // never attached to a loop: nothing could complete the call
    EXPECT_NE(detached.invoke_async(1, "x", {}, record(), 100), ubus::kOk);
}

}  // namespace
}  // namespace bus_test

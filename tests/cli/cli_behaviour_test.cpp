// What the transcripts do not show: notifications reaching a subscriber until it is terminated,
// an object that appears while the tool waits for it, calls answered with several replies, and a
// call that may take as long as it needs.
#include <gtest/gtest.h>
#include <signal.h>

#include "bus_fixture.hpp"
#include "serving_thread.hpp"
#include "ubus/json.hpp"

namespace cli_test {
namespace {

class CliBehaviour : public ::testing::Test {
protected:
    DemoBus& bus = demo_bus();

    Output run(std::vector<std::string> args) {
        args.insert(args.begin(), {"ubus", "-s", "ubus.sock"});
        return run_cli(args, bus.dir);
    }
};

// An object served from a thread of the test.
std::unique_ptr<bus_test::ServingThread> serve(std::string_view path,
                                               std::initializer_list<ubus::MethodDef> methods = {}) {
    auto owner = std::make_unique<bus_test::ServingThread>(demo_bus().broker.socket());
    owner->add(path, methods);
    owner->start();
    return owner;
}

TEST_F(CliBehaviour, SubscriberPrintsEachNotificationUntilTerminated) {
    CliProcess cli({"ubus", "-s", "ubus.sock", "subscribe", "demo"}, bus.dir);
    ASSERT_TRUE(cli.wait_until_serving());
    std::uint32_t demo = 0;
    ASSERT_EQ(bus.client.lookup_id("demo", demo), ubus::kOk);
    ubus::BlobBuf code;
    code.add_i32("code", 5000);  // the owner waits for the subscriber's answer
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(bus.client.invoke(demo, "notify", code.members(), nullptr, 10000), ubus::kOk);

    ::kill(cli.pid(), SIGTERM);
    const Output got = cli.finish();
    EXPECT_EQ(got.out, "{ \"changed\": {\"what\":\"changed\"} }\n{ \"changed\": {\"what\":\"changed\"} }\n");
    EXPECT_EQ(got.err, "");
    EXPECT_EQ(got.exit, 0);
}

TEST_F(CliBehaviour, WaitForReturnsOnceTheLastMissingObjectAppears) {
    CliProcess cli({"ubus", "-s", "ubus.sock", "-t", "30", "wait_for", "demo", "late.a", "late.b"}, bus.dir);
    ASSERT_TRUE(cli.wait_until_serving());
    {
        const auto a = serve("late.a");
        ASSERT_TRUE(cli.wait_until_serving()) << "one object is still missing";
        const auto b = serve("late.b");
        const Output got = cli.finish();
        EXPECT_EQ(got.err, "");
        EXPECT_EQ(got.exit, 0);
    }
}

TEST_F(CliBehaviour, EveryReplyOfACallIsPrintedAsItsOwnDocument) {
    auto two_replies = [](ubus::Request& req) {
        req.reply(ubus::BlobBuf());
        ubus::BlobBuf n;
        n.add_i32("n", 1);
        req.reply(n);
        return ubus::kOk;
    };
    const auto multi = serve("multi", {{"two", {}, two_replies}});
    Output got = run({"call", "multi", "two"});
    EXPECT_EQ(got.out, "{\n\t\n}\n{\n\t\"n\": 1\n}\n");
    EXPECT_EQ(got.exit, 0);
    got = run({"-S", "call", "multi", "two"});
    EXPECT_EQ(got.out, "{}\n{\"n\":1}\n");
    EXPECT_EQ(got.exit, 0);
}

TEST_F(CliBehaviour, ZeroTimeoutLetsACallTakeAsLongAsItNeeds) {
    const Output got = run({"-t", "0", "call", "demo", "slow", R"({"code":300})"});
    EXPECT_EQ(got.err, "");
    EXPECT_EQ(got.exit, 0);
}

}  // namespace
}  // namespace cli_test

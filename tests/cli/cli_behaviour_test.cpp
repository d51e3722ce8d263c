// What the transcripts do not show: notifications reaching a subscriber until it is terminated,
// objects that appear while the tool waits for them, calls answered with several replies, and a
// call that may take as long as it needs.
#include <gtest/gtest.h>
#include <signal.h>

#include "cli_bus.hpp"
#include "serving_thread.hpp"

namespace cli_test {
namespace {

// An object served from a thread of the test.
std::unique_ptr<bus_test::ServingThread> serve(std::string_view path,
                                               std::initializer_list<ubus::MethodDef> methods = {}) {
    auto owner = std::make_unique<bus_test::ServingThread>(demo_bus().broker.socket());
    owner->add(path, methods);
    owner->start();
    return owner;
}

TEST(CliBehaviour, SubscriberPrintsEachNotificationUntilTerminated) {
    CliProcess cli({"ubus", "-s", "ubus.sock", "subscribe", "demo"});
    ASSERT_TRUE(cli.wait_until_serving());
    std::uint32_t demo = 0;
    ASSERT_EQ(demo_bus().client.lookup_id("demo", demo), ubus::kOk);
    ubus::BlobBuf code;
    code.add_i32("code", 5000);  // the owner waits for the subscriber's answer
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(demo_bus().client.invoke(demo, "notify", code.members(), nullptr, 10000), ubus::kOk);
    ::kill(cli.pid(), SIGTERM);
    const std::string line = "{ \"changed\": {\"what\":\"changed\"} }\n";
    EXPECT_EQ(finish(cli), (Output{line + line, "", 0}));
}

TEST(CliBehaviour, WaitForReturnsOnceTheLastMissingObjectAppears) {
    CliProcess cli({"ubus", "-s", "ubus.sock", "-t", "30", "wait_for", "demo", "late.a", "late.b"});
    ASSERT_TRUE(cli.wait_until_serving());
    const auto a = serve("late.a");
    ASSERT_TRUE(cli.wait_until_serving()) << "one object is still missing";
    const auto b = serve("late.b");
    EXPECT_EQ(finish(cli), (Output{"", "", 0}));
}

TEST(CliBehaviour, EveryReplyOfACallIsPrintedAsItsOwnDocumentAndZeroTimeoutWaitsAsLongAsItTakes) {
    const auto multi = serve("multi", {{"two", {}, [](ubus::Request& req) {
                                            req.reply(ubus::BlobBuf());
                                            ubus::BlobBuf n;
                                            n.add_i32("n", 1);
                                            return req.reply(n);
                                        }}});
    EXPECT_EQ(run_cli({"call", "multi", "two"}), (Output{"{\n\t\n}\n{\n\t\"n\": 1\n}\n", "", 0}));
    EXPECT_EQ(run_cli({"-S", "call", "multi", "two"}), (Output{"{}\n{\"n\":1}\n", "", 0}));
    EXPECT_EQ(run_cli({"-t", "0", "call", "demo", "slow", R"({"code":300})"}), (Output{"", "", 0}));
}

}  // namespace
}  // namespace cli_test

// Every captured transcript of the reference tool, run with ours against our broker and a demo
// object like the captured one: stdout, stderr and exit status must be the same, byte for byte.
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <regex>

#include "cli_bus.hpp"
#include "golden_session.hpp"
#include "ubus/json.hpp"

namespace golden {
void PrintTo(const Case& c, std::ostream* os) {  // failures name the case rather than dump it
    *os << c.name;
}
}  // namespace golden

namespace cli_test {
namespace {

void send(std::string_view name, std::string_view json) {
    ubus::BlobBuf data;
    ASSERT_TRUE(ubus::json_load(data, json));
    EXPECT_EQ(demo_bus().client.send_event(name, data.members()), ubus::kOk);
}

// What another client did while the tool ran, as the cases' notes tell.
const std::map<std::string, std::function<void()>, std::less<>> kMeanwhile = {
    {"listen_with_timeout",
     [] {
         send("demo.started", R"({"a":[1,2],"b":{"c":true}})");
         send("other", "{}");
         send("unrelated", R"({"x":1})");
     }},
    {"listen_simple_output", [] { send("ev.\"q", R"({"x":1.5})"); }},
};

class CliTranscript : public ::testing::TestWithParam<golden::Case> {};

TEST_P(CliTranscript, OutputAndExitStatusAreTheReferenceTools) {
    const golden::Case& c = GetParam();
    if (c.has("shell")) {
        EXPECT_EQ(run_in_terminal(golden::unquote(c.get("shell"))), golden::unquote(c.get("terminal")));
        return;
    }
    ubus::BlobBuf argv_json;
    ASSERT_TRUE(ubus::json_load(argv_json, "{\"argv\":" + c.get("argv") + "}"));
    std::vector<std::string> argv;
    for (ubus::Attr arg : (*argv_json.root().children().begin()).children())
        argv.emplace_back(arg.as_string());

    CliProcess cli(argv);
    if (const auto meanwhile = kMeanwhile.find(c.name); meanwhile != kMeanwhile.end()) {
        ASSERT_TRUE(cli.wait_until_serving());
        meanwhile->second();
    }
    const Output got = finish(cli);
    // Object ids are random: the listing must show the id the demo object really has.
    std::uint32_t demo_id = 0;
    ASSERT_EQ(demo_bus().client.lookup_id("demo", demo_id), ubus::kOk);
    char id[16];
    std::snprintf(id, sizeof id, "@%08x", demo_id);
    EXPECT_EQ(got,
              (Output{std::regex_replace(golden::unquote(c.get("stdout")), std::regex("@[0-9a-f]{8}"), id),
                      golden::unquote(c.get("stderr")), std::stoi(c.get("exit"))}));
}

INSTANTIATE_TEST_SUITE_P(Golden, CliTranscript,
                         ::testing::ValuesIn(golden::read_cases("cli_transcripts.txt")),
                         [](const ::testing::TestParamInfo<golden::Case>& c) { return c.param.name; });

}  // namespace
}  // namespace cli_test

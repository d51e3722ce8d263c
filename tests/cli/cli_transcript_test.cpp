// Every captured transcript of the reference tool, run with ours against our broker and a demo
// object like the captured one: stdout, stderr and exit status must be the same, byte for byte.
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <regex>

#include "bus_fixture.hpp"
#include "golden_session.hpp"
#include "ubus/json.hpp"

namespace golden {
// Failures name the case rather than dumping its bytes.
void PrintTo(const Case& c, std::ostream* os) {
    *os << c.name;
}
}  // namespace golden

namespace cli_test {
namespace {

std::vector<std::string> parse_argv(const std::string& json_array) {
    ubus::BlobBuf b;
    std::vector<std::string> argv;
    if (!ubus::json_load(b, "{\"argv\":" + json_array + "}")) return argv;
    for (ubus::Attr list : ubus::AttrList(b.members()))
        for (ubus::Attr arg : list.children()) argv.emplace_back(arg.as_string());
    return argv;
}

void send(ubus::Connection& bus, std::string_view name, std::string_view json) {
    ubus::BlobBuf data;
    ASSERT_TRUE(ubus::json_load(data, json));
    EXPECT_EQ(bus.send_event(name, data.members()), ubus::kOk);
}

// What another client did while the tool ran, as the cases' notes tell.
const std::map<std::string, std::function<void(ubus::Connection&)>, std::less<>> kMeanwhile = {
    {"listen_with_timeout",
     [](ubus::Connection& bus) {
         send(bus, "demo.started", R"({"a":[1,2],"b":{"c":true}})");
         send(bus, "other", "{}");
         send(bus, "unrelated", R"({"x":1})");
     }},
    {"listen_simple_output", [](ubus::Connection& bus) { send(bus, "ev.\"q", R"({"x":1.5})"); }},
};

class CliTranscript : public ::testing::TestWithParam<golden::Case> {
protected:
    DemoBus& bus = demo_bus();
};

TEST_P(CliTranscript, OutputAndExitStatusAreTheReferenceTools) {
    const golden::Case& c = GetParam();
    if (c.has("shell")) {
        EXPECT_EQ(run_in_terminal(golden::unquote(c.get("shell")), bus.dir, cli_dir()),
                  golden::unquote(c.get("terminal")));
        return;
    }
    const std::vector<std::string> argv = parse_argv(c.get("argv"));
    ASSERT_FALSE(argv.empty()) << "case without a command";

    CliProcess cli(argv, bus.dir);
    if (const auto meanwhile = kMeanwhile.find(c.name); meanwhile != kMeanwhile.end()) {
        ASSERT_TRUE(cli.wait_until_serving());
        meanwhile->second(bus.client);
    }
    const Output got = cli.finish();

    // Object ids are random: the listing must show the id the demo object really has.
    std::uint32_t demo_id = 0;
    ASSERT_EQ(bus.client.lookup_id("demo", demo_id), ubus::kOk);
    char id[16];
    std::snprintf(id, sizeof id, "@%08x", demo_id);
    const std::string expected_out =
        std::regex_replace(golden::unquote(c.get("stdout")), std::regex("@[0-9a-f]{8}"), id);

    EXPECT_EQ(got.out, expected_out);
    EXPECT_EQ(got.err, golden::unquote(c.get("stderr")));
    EXPECT_EQ(got.exit, std::stoi(c.get("exit")));
}

INSTANTIATE_TEST_SUITE_P(Golden, CliTranscript,
                         ::testing::ValuesIn(golden::read_cases("cli_transcripts.txt")),
                         [](const ::testing::TestParamInfo<golden::Case>& c) { return c.param.name; });

}  // namespace
}  // namespace cli_test

// `ubus monitor` lines: the captured monitor's MONITOR messages must print as the reference tool
// printed them (the capture's header lists its output).
#include "monitor_line.hpp"

#include <gtest/gtest.h>

#include <fstream>

#include "golden_session.hpp"
#include "ubus/wire.hpp"

namespace cli_test {
namespace {

TEST(MonitorLine, CapturedTrafficPrintsAsTheReferenceToolPrintedIt) {
    constexpr std::string_view kPrinted = "# monitor stdout: ";
    std::vector<std::string> expected, printed;
    std::ifstream in(golden::path("session_monitor.txt"));
    for (std::string line; std::getline(in, line);)
        if (line.starts_with(kPrinted)) expected.push_back(line.substr(kPrinted.size()));
    ubus::FrameReader reader;
    ubus::Frame frame;
    for (const golden::Step& step : golden::read_session("session_monitor.txt")) {
        if (step.kind != golden::Step::FromBroker) continue;
        reader.feed(step.bytes);
        ASSERT_EQ(reader.next(frame), ubus::FrameReader::Result::Frame);
        if (frame.hdr.type != ubus::MsgType::Monitor) continue;
        const auto m = ubus_cli::read_monitored(frame.body_payload());
        ASSERT_TRUE(m) << "line " << step.line;
        printed.push_back(ubus_cli::monitor_line(*m));
    }
    ASSERT_FALSE(expected.empty());
    EXPECT_EQ(printed, expected);
}

TEST(MonitorLine, CopiesWithoutClientOrTypeAreSkippedAndUnknownTypesAreShownByNumber) {
    ubus::BlobBuf copy(0);
    copy.put_u32(0, 0x1234);
    copy.put_u32(1, 7);
    EXPECT_FALSE(ubus_cli::read_monitored(copy.members())) << "no type";
    copy.put_u32(4, 42);
    copy.put_u8(2, 1);
    const auto m = ubus_cli::read_monitored(copy.members());
    ASSERT_TRUE(m);
    EXPECT_EQ(ubus_cli::monitor_line(*m), "-> 00001234 #00000007             42: {}");

    EXPECT_FALSE(ubus_cli::message_type_number("bogus"));
}

}  // namespace
}  // namespace cli_test

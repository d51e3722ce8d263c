// The JSON bridge beyond what the captures show: doubles at their extremes, the indentation
// tab cap, strings without their NUL, odd names, very deep nesting, and loading into a buffer
// that already holds data.
#include "ubus/json.hpp"

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "golden_session.hpp"
#include "temp_dir.hpp"

namespace {

using ubus::Attr;
using ubus::BlobBuf;

std::string element(Attr a, const ubus::JsonFormat& f = {}) {
    std::string out;
    ubus::json_format_element(out, a, f);
    return out;
}

TEST(JsonFormat, DoublesPrintLikePrintfFixed) {
    for (double v : {0.0000015, 1e-7, 5e-7, 0.125, -0.0, 1e300, -DBL_MAX, DBL_TRUE_MIN, 123456.7890125,
                     -1e-300, double(NAN), -double(NAN), double(INFINITY), -double(INFINITY)}) {
        char expected[400];
        std::snprintf(expected, sizeof expected, "%f", v);
        BlobBuf b;
        b.add_double("", v);
        EXPECT_EQ(element(*b.root().children().begin()), expected);
    }
}

TEST(JsonFormat, IndentationStopsAtSixteenTabs) {
    BlobBuf deep;
    std::vector<std::size_t> open;
    for (int i = 0; i < 20; ++i) open.push_back(deep.open_array(""));
    deep.add_i32("", 7);
    for (auto it = open.rbegin(); it != open.rend(); ++it) deep.close(*it);
    std::string expected = "{\n";
    for (int i = 1; i <= 20; ++i) expected += std::string(std::min(i, 16), '\t') + "[\n";
    expected += std::string(16, '\t') + "7\n";
    for (int i = 20; i >= 1; --i) expected += std::string(std::min(i, 16), '\t') + "]\n";
    EXPECT_EQ(ubus::json_format(deep, ubus::JsonFormat::indented()), expected + "}");
}

// (Elements as `list -v` prints them are in the CLI transcripts.)
TEST(JsonFormat, AStringWithoutItsNulIsSkippedBytesAboveAsciiPassAndANameEndsAtItsFirstNul) {
    EXPECT_EQ(element(Attr::at(std::vector<std::uint8_t>{0x83, 0, 0, 0x0a, 0, 1, 's', 0, 'x', 'y', 0, 0})),
              "");
    BlobBuf odd;
    odd.add_string("k", std::string_view("\xff\xc3(\x1f\x7f", 5));
    odd.add_i32(std::string_view("ab\0cd", 5), 1);
    odd.add_i32(std::string_view("\0x", 2), 2);
    EXPECT_EQ(ubus::json_format(odd), "{\"k\":\"\xff\xc3(\\u001f\x7f\",\"ab\":1,2}");
}

TEST(JsonFormat, VeryDeepNestingIsFormattedWithoutRecursion) {
    constexpr int kDepth = 100000;  // 8 bytes a level: under a 1 MiB message
    BlobBuf b;
    std::vector<std::size_t> open;
    for (int i = 0; i < kDepth; ++i) open.push_back(b.open_table(""));
    for (auto it = open.rbegin(); it != open.rend(); ++it) b.close(*it);
    EXPECT_EQ(ubus::json_format(b), std::string(kDepth + 1, '{') + std::string(kDepth + 1, '}'));
}

TEST(JsonLoad, AppendsToTheOpenContainerAndRefusedInputLeavesTheBufferUntouched) {
    std::string deep;
    for (int i = 0; i < 200; ++i) deep = "{\"a\":" + deep;
    deep += "1" + std::string(200, '}');
    const std::string chunk(6 << 20,
                            'x');  // each string fits a blob; together they overflow the root's length
    // (Texts that are not an object at all are refused as the captures show.)
    const std::string bad[] = {"{\"a\":1",
                               "{a:1}",
                               "{\"a\":.5}",
                               deep,
                               std::string("\0{}", 3),
                               "{\"a\":[1,2,{\"b\":\"x\"}],\"c\":tru}",  // refused only after much was read
                               "{\"a\":\"" + chunk + "\",\"b\":\"" + chunk + "\",\"c\":\"" + chunk + "\"}"};
    BlobBuf b;
    b.add_i32("x", 1);
    const auto t = b.open_table("t");
    ASSERT_TRUE(ubus::json_load(b, R"({"a":[true],"b":{}})"));
    const std::string before = golden::hex(b.all());
    for (const auto& text : bad) {
        EXPECT_FALSE(ubus::json_load(b, text)) << text.substr(0, 40);
        EXPECT_EQ(golden::hex(b.all()), before) << text.substr(0, 40);
    }
    EXPECT_FALSE(ubus::json_load_file(b, golden::dir()));  // a directory
    const bus_test::TempDir dir;  // and a (sparse) file above the bound against hostile files
    const std::string huge = dir.path() + "/huge.json";
    std::ofstream(huge) << "{}";
    std::filesystem::resize_file(huge, (std::uintmax_t{128} << 20) + 1);
    EXPECT_FALSE(ubus::json_load_file(b, huge));
    EXPECT_EQ(golden::hex(b.all()), before);
    b.close(t);
    ASSERT_TRUE(ubus::json_load(b, R"({"y":2})"));
    EXPECT_EQ(ubus::json_format(b), R"({"x":1,"t":{"a":[true],"b":{}},"y":2})");
}

}  // namespace

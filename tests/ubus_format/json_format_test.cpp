// Formatting blobmsg as JSON beyond what the captures show: doubles, indentation levels and the
// tab cap, element form, the element hook, odd names and very deep nesting.
#include <gtest/gtest.h>

#include <bit>
#include <cfloat>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "ubus/json.hpp"

namespace {

using ubus::Attr;
using ubus::BlobBuf;
using ubus::JsonFormat;

Attr first(const BlobBuf& b) {
    return *b.root().children().begin();
}

std::string element(Attr a, const JsonFormat& f = {}) {
    std::string out;
    ubus::json_format_element(out, a, f);
    return out;
}

TEST(JsonFormat, DoublesPrintLikePrintfFixed) {
    const double values[] = {0.0000015,    1e-7,           5e-7, 0.125,   2.5e-6, -0.0, 1e300,    -DBL_MAX,
                             DBL_TRUE_MIN, 123456.7890125, 1e15, -1e-300, NAN,    -NAN, INFINITY, -INFINITY};
    for (double v : values) {
        char expected[400];
        std::snprintf(expected, sizeof expected, "%f", v);
        BlobBuf b;
        b.add_double("", v);
        EXPECT_EQ(element(first(b)), expected);
    }
}

TEST(JsonFormat, IndentLevelShiftsEveryLineButTheFirst) {
    BlobBuf b;
    const auto t = b.open_table("a");
    b.add_i32("b", 1);
    b.close(t);
    b.open_array("e");  // left open: an empty array at the end
    EXPECT_EQ(ubus::json_format(b, ubus::JsonFormat::indented(2)),
              "{\n\t\t\t\"a\": {\n\t\t\t\t\"b\": 1\n\t\t\t},\n\t\t\t\"e\": [\n\t\t\t\t\n\t\t\t]\n\t\t}");
}

TEST(JsonFormat, IndentationStopsAtSixteenTabs) {
    BlobBuf b;
    std::vector<std::size_t> open;
    for (int i = 0; i < 20; ++i) open.push_back(b.open_array(""));
    b.add_i32("", 7);
    for (auto it = open.rbegin(); it != open.rend(); ++it) b.close(*it);
    std::string out;
    ubus::json_format_list(out, b.root(), ubus::JsonFormat::indented());

    std::vector<std::size_t> tabs;
    std::size_t pos = 0;
    while ((pos = out.find('\n', pos)) != std::string::npos) {
        ++pos;
        tabs.push_back(out.find_first_not_of('\t', pos) - pos);
    }
    ASSERT_EQ(tabs.size(), 42u);
    for (std::size_t i = 0; i < tabs.size(); ++i) {
        const std::size_t depth = i <= 20 ? i + 1 : 41 - i;  // down to the value, then back out
        EXPECT_EQ(tabs[i], std::min<std::size_t>(depth, 16)) << "line " << i;
    }
    EXPECT_NE(out.find("\t7\n"), std::string::npos);
}

TEST(JsonFormat, ElementForm) {
    BlobBuf b;
    b.add_i32("n", 1);
    b.add_i32("", 2);
    const auto t = b.open_table("t");
    b.add_string("s", "x");
    b.close(t);
    std::vector<std::string> got;
    for (Attr a : b.root().children()) got.push_back(element(a));
    EXPECT_EQ(got, (std::vector<std::string>{"\"n\":1", "2", "\"t\":{\"s\":\"x\"}"}));
    EXPECT_EQ(element(first(b), ubus::JsonFormat::indented()), "\"n\": 1");

    const std::vector<std::uint8_t> bad_string = {0x83, 0, 0, 0x0a, 0, 1, 's', 0, 'x', 'y', 0, 0};
    EXPECT_EQ(element(Attr::at(bad_string)), "");
}

TEST(JsonFormat, ListFormOfAnAttributeIsAnArrayOnlyForAnExtendedArray) {
    BlobBuf b;
    const auto arr = b.open_array("a");
    b.add_i32("", 1);
    b.close(arr);
    std::string out;
    ubus::json_format_list(out, first(b));
    // A plain attribute whose id happens to be 1 is a headerless table, like DATA.
    const std::vector<std::uint8_t> plain = {0x01, 0, 0, 0x10, 0x85, 0, 0, 0x0c, 0, 1, 'k', 0, 0, 0, 0, 2};
    ubus::json_format_list(out, Attr::at(plain));
    EXPECT_EQ(out, "[1]{\"k\":2}");
}

TEST(JsonFormat, HookReplacesValuesAtEveryDepthButNotTheListedContainer) {
    BlobBuf b;
    b.add_i32("i", 1);
    const auto t = b.open_table("t");
    b.add_i32("j", 2);
    b.add_string("s", "keep");
    b.close(t);
    const auto r = b.open_table("r");
    b.add_i32("k", 3);
    b.close(r);

    std::vector<std::string_view> asked;
    JsonFormat f;
    f.element_hook = [&](Attr a, std::string& out) {
        asked.push_back(a.name());
        if (a.type() == ubus::Type::Int32) out += "INT";
        if (a.name() == "r") out += "<r>";
        return a.type() == ubus::Type::Int32 || a.name() == "r";
    };
    EXPECT_EQ(ubus::json_format(b, f), R"({"i":INT,"t":{"j":INT,"s":"keep"},"r":<r>})");
    EXPECT_EQ(asked, (std::vector<std::string_view>{"i", "t", "j", "s", "r"}));

    asked.clear();
    EXPECT_EQ(element(*std::next(b.root().children().begin()), f), R"("t":{"j":INT,"s":"keep"})");
    EXPECT_EQ(asked, (std::vector<std::string_view>{"t", "j", "s"}));
}

TEST(JsonFormat, BytesAboveAsciiPassThroughAndNamesEndAtNul) {
    BlobBuf b;
    b.add_string("k", std::string_view("\xff\xc3(\x1f\x7f", 5));
    b.add_i32(std::string_view("ab\0cd", 5), 1);
    b.add_i32(std::string_view("\0x", 2), 2);
    EXPECT_EQ(ubus::json_format(b), "{\"k\":\"\xff\xc3(\\u001f\x7f\",\"ab\":1,2}");
}

TEST(JsonFormat, VeryDeepNestingIsFormattedWithoutRecursion) {
    constexpr int kDepth = 100000;  // 8 bytes a level: under a 1 MiB message
    BlobBuf b;
    std::vector<std::size_t> open;
    for (int i = 0; i < kDepth; ++i) open.push_back(b.open_table(""));
    for (auto it = open.rbegin(); it != open.rend(); ++it) b.close(*it);
    const std::string out = ubus::json_format(b);
    EXPECT_EQ(out, std::string(kDepth + 1, '{') + std::string(kDepth + 1, '}'));
}

}  // namespace

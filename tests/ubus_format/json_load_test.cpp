// Loading JSON into a buffer that already holds data.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "golden_session.hpp"
#include "ubus/json.hpp"

namespace {

using ubus::BlobBuf;

std::string bytes_of(const BlobBuf& b) {
    return golden::hex(b.all());
}

TEST(JsonLoad, RejectedInputLeavesABusyBufferUntouched) {
    std::string deep;
    for (int i = 0; i < 200; ++i) deep += "{\"a\":";
    deep += "1";
    for (int i = 0; i < 200; ++i) deep += "}";
    // Text that only gets refused after json-c has read a lot of it.
    const std::string late_error = "{\"a\":[1,2,{\"b\":\"x\"}],\"c\":tru}";
    const std::vector<std::string> bad = {
        "",         "[1,{\"a\":1}]",       "\"s\"", "7", "null", "{\"a\":1", "{a:1}", "{\"a\":.5}", deep,
        late_error, std::string("\0{}", 3)};

    BlobBuf b;
    b.add_string("before", "kept");
    const auto open = b.open_table("open");
    b.add_u8("inside", 1);
    const std::string before = bytes_of(b);

    for (const auto& text : bad) {
        SCOPED_TRACE(text);
        EXPECT_FALSE(ubus::json_load(b, text));
        EXPECT_EQ(bytes_of(b), before);
    }
    b.close(open);
    EXPECT_EQ(ubus::json_format(b), R"({"before":"kept","open":{"inside":true}})");
}

TEST(JsonLoad, AppendsToTheContainerThatIsOpen) {
    BlobBuf b;
    b.add_i32("x", 1);
    const auto t = b.open_table("t");
    ASSERT_TRUE(ubus::json_load(b, R"({"a":[true],"b":{}})"));
    b.close(t);
    ASSERT_TRUE(ubus::json_load(b, R"({"y":2})"));
    EXPECT_EQ(ubus::json_format(b), R"({"x":1,"t":{"a":[true],"b":{}},"y":2})");
}

TEST(JsonLoad, ContentTooLargeForABlobHeaderIsRefusedWhole) {
    BlobBuf b;
    b.add_i32("x", 1);
    const std::string before = bytes_of(b);
    // Each string fits on its own; together they pass the 24-bit length of the root.
    const std::string chunk(6 << 20, 'x');
    const std::string text = "{\"a\":\"" + chunk + "\",\"b\":\"" + chunk + "\",\"c\":\"" + chunk + "\"}";
    EXPECT_FALSE(ubus::json_load(b, text));
    EXPECT_EQ(bytes_of(b), before);
}

TEST(JsonLoad, UnreadableFilesFail) {
    BlobBuf b;
    EXPECT_FALSE(ubus::json_load_file(b, golden::dir()));  // a directory
    EXPECT_FALSE(ubus::json_load_file(b, ""));
    EXPECT_EQ(bytes_of(b), "02000004");
}

}  // namespace

#include "daemon/reply_envelope.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ubus/json.hpp"

namespace pkgd {
namespace {

std::string envelope(std::int32_t result, ubus::Attr body) {
    ubus::BlobBuf reply;
    reply.add_string("left", "over");  // whatever the buffer held before is dropped
    hlapi_reply(result, body, reply);
    return ubus::json_format(reply);
}

TEST(ReplyEnvelope, HeaderNamesTheOutcomeAndBodyIsPresentOnlyWhenGiven) {
    EXPECT_EQ(envelope(HLAPI_OK, {}), R"({"Header":{"Name":"OK"}})");
    EXPECT_EQ(envelope(HLAPI_ARGUMENT_REQUIRED_MISSING, {}),
              R"({"Header":{"Name":"ARGUMENT_REQUIRED_MISSING"}})");
    EXPECT_EQ(envelope(HLAPI_OPERATION_ILLEGAL, {}), R"({"Header":{"Name":"OPERATION_ILLEGAL"}})");
    EXPECT_EQ(envelope(HLAPI_OPERATION_ERROR, {}), R"({"Header":{"Name":"OPERATION_ERROR"}})");
    EXPECT_EQ(envelope(HLAPI_ARGUMENT_VALUE_NOT_SUPPORTED, {}),
              R"({"Header":{"Name":"ARGUMENT_VALUE_NOT_SUPPORTED"}})");

    const ubus::BlobBuf empty_body;
    EXPECT_EQ(envelope(HLAPI_OK, empty_body.root()), R"({"Header":{"Name":"OK"},"Body":{}})");
}

TEST(ReplyEnvelope, ResultsOutsideTheTableGiveAnEmptyTable) {
    ubus::BlobBuf body;
    body.add_string("Id", "1");
    for (std::int32_t result : {-1, 12, 1000}) {
        EXPECT_EQ(envelope(result, body.root()), "{}") << result;
    }
}

TEST(ReplyEnvelope, BodyIsCopiedByteForByteInItsOrder) {
    ubus::BlobBuf body;
    const auto list = body.open_array("List");
    for (const char* id : {"3", "1", "2"}) {
        const auto t = body.open_table("");
        body.add_string("Id", id);
        body.add_u8("Enabled", 2);  // a byte that is not 0 or 1 survives as it is
        body.close(t);
    }
    body.close(list);
    body.add_i32("Limit", 0);
    body.add_double("Usage", 0.5);

    ubus::BlobBuf reply;
    hlapi_reply(HLAPI_OK, body.root(), reply);

    std::vector<ubus::Attr> top(reply.root().children().begin(), reply.root().children().end());
    ASSERT_EQ(top.size(), 2u);
    EXPECT_EQ(top[0].name(), "Header");
    EXPECT_EQ(top[1].name(), "Body");
    EXPECT_EQ(top[1].type(), ubus::Type::Table);
    const ubus::Bytes copied = top[1].data();
    const ubus::Bytes original = body.members();
    EXPECT_TRUE(std::equal(copied.begin(), copied.end(), original.begin(), original.end()));
}

}  // namespace
}  // namespace pkgd

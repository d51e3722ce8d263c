// Reading blob/blobmsg and message bodies at the edges of the walk and parse rules, and copying
// attributes. (Arbitrary bytes are the fuzz targets' part.)
#include <gtest/gtest.h>

#include "golden_session.hpp"
#include "ubus/json.hpp"
#include "ubus/wire.hpp"

namespace {

using ubus::Attr;
using ubus::Bytes;
using Buffer = std::vector<std::uint8_t>;

TEST(BlobParse, ZeroLengthEndsQuietlyALengthBelowFourIsMalformed) {
    static constexpr ubus::Policy kPolicy[] = {{"a", ubus::Type::Int32}, {"c", ubus::Type::Int32}};
    ubus::BlobBuf a_and_c;
    ASSERT_TRUE(ubus::json_load(a_and_c, R"({"a":1,"c":3})"));
    for (const std::uint8_t len : {0, 1, 2, 3}) {
        Buffer bytes(a_and_c.members().begin(), a_and_c.members().end());
        const Buffer bad = {0x85, 0, 0, len};
        bytes.insert(bytes.begin() + 12, bad.begin(), bad.end());
        const auto r = ubus::parse(kPolicy, bytes);
        EXPECT_EQ(r.status, len == 0 ? 0 : -1) << int{len};
        EXPECT_EQ(r[0].as_i32(), 1);  // found before the bad member: kept
        EXPECT_FALSE(r[1]);           // after it: never seen
    }
}

TEST(BlobBuild, CopiedAttributesGetZeroPadding) {
    // "x" string value (LEN 10) followed by garbage where its padding should be.
    const Buffer src = {0x83, 0, 0, 0x0a, 0, 0, 0, 0, 'x', 0, 0xee, 0xee};
    ubus::BlobBuf b;
    b.add_attr(Attr::at(src));
    EXPECT_EQ(golden::hex(b.root_bytes()), "020000108300000a0000000078000000");
}

TEST(MsgAttrs, LastWellFormedOccurrenceWinsAndMalformedOnesAreIgnored) {
    ubus::BlobBuf b(0);
    const Buffer id1 = {0, 0, 0, 1}, id2 = {0, 0, 0, 2};
    const std::pair<std::uint32_t, Buffer> attrs[] = {
        {ubus::kAttrObjId, id1},
        {ubus::kAttrObjId, id2},
        {ubus::kAttrObjId, {0, 0, 3}},  // wrong size: ignored
        {ubus::kAttrMethod, {'g', 'o', 0}},
        {ubus::kAttrMethod, {'b', 'a', 'd'}},  // no NUL: ignored
        {ubus::kAttrStatus, {0, 0, 0, 4, 0}},  // wrong size, and the only one
        {ubus::kAttrNoReply, {1}},
        {ubus::kAttrActive, {0, 1}},  // wrong size
        {ubus::kAttrData, {}},        // nested: any length
        {14, id1},
        {127, id1},
    };
    for (const auto& [id, payload] : attrs) b.put_raw(id, payload);
    const ubus::MsgAttrs a(b.members());
    EXPECT_EQ(a.u32(ubus::kAttrObjId), 2u);
    EXPECT_EQ(a.str(ubus::kAttrMethod), "go");
    EXPECT_EQ(a.u8(ubus::kAttrNoReply), 1);
    EXPECT_TRUE(a.has(ubus::kAttrData) && a.data().empty());
    EXPECT_FALSE(a.has(ubus::kAttrStatus) || a.has(ubus::kAttrActive) || a.has(14));
}

}  // namespace

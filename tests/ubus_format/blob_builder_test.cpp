// Building blobmsg: container lengths, wide values, copies and roll-back.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

#include "golden_session.hpp"
#include "ubus/blob.hpp"
#include "ubus/wire.hpp"

namespace {

using ubus::Attr;
using ubus::AttrList;
using ubus::BlobBuf;
using ubus::Bytes;

TEST(BlobBuilder, ContainerLengthsCountPaddedChildrenAtEveryDepth) {
    BlobBuf b;
    const auto outer = b.open_table("o");
    b.add_string("s", "abcd");  // LEN 13: three bytes of padding
    const auto inner = b.open_array("a");
    b.add_u8("", 1);  // LEN 9
    b.close(inner);
    b.add_u8("z", 0);
    b.close(outer);

    const Attr root = b.root();
    ASSERT_TRUE(root);
    EXPECT_EQ(root.raw_len(), b.root_bytes().size());
    const Attr o = *root.children().begin();
    EXPECT_EQ(o.name(), "o");
    EXPECT_EQ(o.raw_len(), 4 + 4 + 16 + 20 + 12u);  // header, name "o", padded s, a, padded z
    std::vector<std::string_view> names;
    for (Attr m : o.children()) {
        EXPECT_TRUE(m.valid(true));
        EXPECT_EQ(m.raw_len() % 4 == 0, m.type() == ubus::Type::Array);
        names.push_back(m.name());
    }
    EXPECT_EQ(names, (std::vector<std::string_view>{"s", "a", "z"}));
    const auto a = std::next(o.children().begin());
    EXPECT_EQ((*a).raw_len(), 4 + 4 + 12u);
    EXPECT_TRUE((*(*a).children().begin()).as_bool());
}

TEST(BlobBuilder, WideIntegersAndDoublesRoundTripExactly) {
    const std::int64_t ints[] = {std::numeric_limits<std::int64_t>::min(), -1, 0, std::int64_t{1} << 40,
                                 std::numeric_limits<std::int64_t>::max()};
    const double doubles[] = {-0.0,
                              std::numeric_limits<double>::denorm_min(),
                              std::numeric_limits<double>::max(),
                              -std::numeric_limits<double>::infinity(),
                              std::bit_cast<double>(std::uint64_t{0xfff8000000000123}),  // NaN with payload
                              1e300};
    BlobBuf b;
    for (auto v : ints) b.add_i64("i", v);
    for (auto v : doubles) b.add_double("d", v);
    auto it = b.root().children().begin();
    for (auto v : ints) EXPECT_EQ((*it++).as_i64(), v);
    for (auto v : doubles)
        EXPECT_EQ(std::bit_cast<std::uint64_t>((*it++).as_double()), std::bit_cast<std::uint64_t>(v));
}

TEST(BlobBuilder, CopiedAttributesGetZeroPadding) {
    // "x" string value (LEN 10) followed by garbage where its padding should be.
    const std::vector<std::uint8_t> src = {0x83, 0, 0, 0x0a, 0, 0, 0, 0, 'x', 0, 0xee, 0xee};
    BlobBuf b;
    b.add_attr(Attr::at(src));
    EXPECT_EQ(golden::hex(b.root_bytes()), "020000108300000a0000000078000000");
}

TEST(BlobBuilder, TruncateDropsLaterMembersAndFixesTheRoot) {
    BlobBuf b;
    b.add_i32("keep", 1);
    const std::size_t mark = b.size();
    const auto t = b.open_table("drop");
    b.add_string("s", "some text");
    b.close(t);
    b.truncate(mark);
    b.add_u8("after", 1);

    BlobBuf expected;
    expected.add_i32("keep", 1);
    expected.add_u8("after", 1);
    EXPECT_EQ(golden::hex(b.root_bytes()), golden::hex(expected.root_bytes()));
}

TEST(BlobBuilder, MessageBuiltInPlaceReadsBack) {
    BlobBuf data;
    data.add_string("k", "v");
    ubus::MsgBuf m(ubus::MsgType::Invoke, 0x1234, 0xdeadbeef);
    m.put_u32(ubus::kAttrObjId, 7);
    m.put_string(ubus::kAttrMethod, "hello");
    m.put_data(data);
    const Bytes frame = m.frame();

    ubus::FrameReader r;
    r.feed(frame);
    ubus::Frame f;
    ASSERT_EQ(r.next(f), ubus::FrameReader::Result::Frame);
    EXPECT_EQ(f.bytes.size(), frame.size());
    EXPECT_EQ(f.hdr.type, ubus::MsgType::Invoke);
    EXPECT_EQ(f.hdr.seq, 0x1234);
    EXPECT_EQ(f.hdr.peer, 0xdeadbeefu);
    const auto attrs = f.attrs();
    EXPECT_EQ(attrs.u32(ubus::kAttrObjId), 7u);
    EXPECT_EQ(attrs.str(ubus::kAttrMethod), "hello");
    EXPECT_EQ(golden::hex(attrs.data()), golden::hex(data.members()));
}

}  // namespace

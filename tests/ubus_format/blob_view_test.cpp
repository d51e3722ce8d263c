// Reading blob/blobmsg from untrusted bytes: views stay inside their buffer whatever the bytes,
// and the walk and parse rules hold at their edges.
#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "golden_session.hpp"
#include "ubus/blob.hpp"
#include "ubus/json.hpp"

namespace {

using ubus::Attr;
using ubus::AttrList;
using ubus::Bytes;

bool inside(Bytes part, Bytes whole) {
    return part.empty() ||
           (part.data() >= whole.data() && part.data() + part.size() <= whole.data() + whole.size());
}

// Touches every accessor of every attribute reachable from `members`, checking that each view
// lies inside the bytes it came from. `depth` bounds the recursion on crafted input.
void exercise(Bytes members, int depth = 0) {
    for (Attr a : AttrList(members)) {
        ASSERT_TRUE(inside({a.ptr(), a.padded_len()}, members));
        ASSERT_TRUE(inside(a.payload(), a.raw()));
        ASSERT_TRUE(inside(a.data(), a.raw()));
        const std::string_view name = a.name();
        ASSERT_TRUE(inside({reinterpret_cast<const std::uint8_t*>(name.data()), name.size()}, a.raw()));
        const std::string_view s = a.as_string();
        ASSERT_TRUE(inside({reinterpret_cast<const std::uint8_t*>(s.data()), s.size()}, a.data()));
        (void)a.valid(true);
        (void)a.as_u8();
        (void)a.as_i16();
        (void)a.as_i32();
        (void)a.as_i64();
        (void)a.as_double();
        (void)a.str();
        (void)a.u32();
        if (depth < 4) {
            exercise(a.data(), depth + 1);
            if (a.data().data() != a.payload().data()) exercise(a.payload(), depth + 1);
        }
        std::string out;
        ubus::json_format_element(out, a, ubus::JsonFormat::indented());
    }
    static constexpr ubus::Policy kPolicy[] = {
        {"a", ubus::Type::Int32}, {"s", ubus::Type::String}, {"", ubus::Type::Unspec}};
    (void)ubus::parse(kPolicy, members);
    Attr arr[3];
    (void)ubus::parse_array(kPolicy, members, arr);
    std::string out;
    ubus::json_format_list(out, members, false);
    ubus::json_format_list(out, members, true, ubus::JsonFormat::indented());
    ubus::json_format_list(out, Attr::at(members));
}

// Each buffer is copied to an exactly sized allocation so that a read past it is caught when
// the tests run under AddressSanitizer.
void exercise_copy(const std::vector<std::uint8_t>& bytes, std::size_t n) {
    const std::vector<std::uint8_t> exact(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(n));
    exercise(exact);
}

std::vector<std::vector<std::uint8_t>> golden_buffers() {
    std::vector<std::vector<std::uint8_t>> out;
    for (const char* file : {"blobmsg_build.txt", "blobmsg_validity.txt", "json_to_blobmsg.txt"})
        for (const auto& c : golden::read_cases(file))
            if (c.has("hex")) out.push_back(golden::unhex(c.get("hex")));
    return out;
}

TEST(BlobView, TruncatedAndCorruptedBuffersAreReadWithinBounds) {
    const auto buffers = golden_buffers();
    ASSERT_GT(buffers.size(), 50u);
    std::mt19937 rng(7);
    for (const auto& b : buffers) {
        for (std::size_t n = 0; n <= b.size(); ++n) exercise_copy(b, n);
        // Single corrupted bytes hit length fields, name lengths and type ids.
        for (int k = 0; k < 64 && !b.empty(); ++k) {
            auto m = b;
            m[rng() % m.size()] = static_cast<std::uint8_t>(rng());
            exercise_copy(m, m.size());
            // The same data seen without the root header: members of a table.
            if (m.size() > 4) exercise_copy(std::vector<std::uint8_t>(m.begin() + 4, m.end()), m.size() - 4);
        }
    }
    for (int k = 0; k < 2000; ++k) {
        std::vector<std::uint8_t> g(rng() % 64);
        for (auto& byte : g) byte = static_cast<std::uint8_t>(rng() % 3 ? rng() % 16 : rng());
        exercise_copy(g, g.size());
    }
}

std::vector<std::uint8_t> int32_member(std::string_view name, std::int32_t v) {
    ubus::BlobBuf b;
    b.add_i32(name, v);
    const Bytes m = b.members();
    return {m.begin(), m.end()};
}

TEST(BlobParse, ZeroLengthEndsQuietlyButLengthBelowFourIsMalformed) {
    static constexpr ubus::Policy kPolicy[] = {{"a", ubus::Type::Int32}, {"c", ubus::Type::Int32}};
    for (const std::uint8_t len : {0, 1, 2, 3}) {
        SCOPED_TRACE(int{len});
        auto bytes = int32_member("a", 1);
        const std::vector<std::uint8_t> bad = {0x85, 0x00, 0x00, len};
        bytes.insert(bytes.end(), bad.begin(), bad.end());
        const auto c = int32_member("c", 3);
        bytes.insert(bytes.end(), c.begin(), c.end());

        const auto r = ubus::parse(kPolicy, bytes);
        EXPECT_EQ(r.status, len == 0 ? 0 : -1);
        EXPECT_EQ(r[0].as_i32(), 1);  // found before the bad member: kept
        EXPECT_FALSE(r[1]);           // after it: never seen
    }
}

TEST(BlobParse, ArrayEntriesTakeTheNextElementOfTheirType) {
    ubus::BlobBuf b;
    b.add_i32("", 1);
    b.add_string("", "s1");
    b.add_i32("", 2);
    b.add_string("", "s2");
    static constexpr ubus::Policy kPolicy[] = {
        {"", ubus::Type::String}, {"", ubus::Type::Int32}, {"", ubus::Type::String}};
    Attr out[3];
    EXPECT_EQ(ubus::parse_array(kPolicy, b.members(), out), 0);
    EXPECT_EQ(out[0].as_string(), "s1");
    EXPECT_EQ(out[1].as_i32(), 2);
    EXPECT_EQ(out[2].as_string(), "s2");
}

}  // namespace

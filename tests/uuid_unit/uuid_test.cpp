// Name-based UUIDs: the text a deployment unit gets from its name (escaping, namespace, version,
// the bounded append into a record's buffer), and the ordering of UUIDs. Expected UUIDs were
// computed independently.
#include "pkgd/uuid.hpp"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <string>

namespace {

constexpr std::string_view kFooV5 = "43e59cb0-d70e-598c-a3c9-3f0a8960e463";

std::string generate(std::string_view name, int kind, int use_md5, std::string_view before = "") {
    std::array<char, 64> buf{};
    std::memcpy(buf.data(), before.data(), before.size());
    pkgd::LCM_generate_uuid(buf, name, kind, use_md5);
    return buf.data();
}

TEST(LcmUuid, UnitNamesGiveTheWellKnownUuidsInEveryNamespace) {
    // "name.vendor", or "name.." without a vendor, is what the installer hashes.
    EXPECT_EQ(generate("foo..", pkgd::UUID_NAMESPACE_DNS, 0), kFooV5);
    EXPECT_EQ(generate("foo.ACME Inc", pkgd::UUID_NAMESPACE_DNS, 0), "400b6402-f0dd-5feb-9bef-d9a39a3181de");
    EXPECT_EQ(generate("foo..", pkgd::UUID_NAMESPACE_DNS, 1), "4a3b3667-92f4-30c4-a533-476153e60a0a");
    EXPECT_EQ(generate("foo.ACME Inc", pkgd::UUID_NAMESPACE_DNS, 7), "c9d510da-5d40-3e67-8609-5480614e6f82");
    EXPECT_EQ(generate("foo..", pkgd::UUID_NAMESPACE_URL, 0), "b5e7fabd-4022-56a0-a851-b59d5e63f3b8");
    EXPECT_EQ(generate("foo..", pkgd::UUID_NAMESPACE_OID, 1), "2a314a73-bfe5-3750-9d03-8e9e270c066f");
    EXPECT_EQ(generate("foo..", pkgd::UUID_NAMESPACE_X500, 0), "c14aeabb-cb93-5553-9915-7f00ddfbd12c");
    EXPECT_EQ(generate("foo..", pkgd::UUID_NAMESPACE_X500, 1), "9395107c-52a8-37ed-8987-e3713cf559dc");
}

TEST(LcmUuid, BytesOutsideTheSafeSetAreEscapedWithoutLeadingZeros) {
    // Hashes of "a%20b%9%c3%7e" and "Az09_-", computed independently.
    EXPECT_EQ(generate("a b\t\xc3~", pkgd::UUID_NAMESPACE_DNS, 0), "0565c669-e40d-5a1a-844e-8642f1404831");
    EXPECT_EQ(generate("Az09_-", pkgd::UUID_NAMESPACE_DNS, 0), "883472a2-b92e-5750-b8ef-ce9d35886e76");
    // The name ends at a NUL, as a C text would.
    EXPECT_EQ(generate(std::string_view("foo..\0bar", 9), pkgd::UUID_NAMESPACE_DNS, 0), kFooV5);
}

TEST(LcmUuid, AppendsWithinTheBufferAndLeavesItAloneWhenThereIsNothingToWrite) {
    EXPECT_EQ(generate("foo..", pkgd::UUID_NAMESPACE_DNS, 0, "id:"), "id:" + std::string(kFooV5));

    std::array<char, 20> small{};
    pkgd::LCM_generate_uuid(small, "foo..", pkgd::UUID_NAMESPACE_DNS, 0);
    EXPECT_EQ(std::string(small.data()), kFooV5.substr(0, 19));

    std::array<char, 8> partly{'a', 'b', 'c', 0};
    pkgd::LCM_generate_uuid(partly, "foo..", pkgd::UUID_NAMESPACE_DNS, 0);
    EXPECT_EQ(std::string(partly.data()), "abc" + std::string(kFooV5.substr(0, 4)));

    // Already full: no terminator to append at.
    std::array<char, 4> full{'w', 'x', 'y', 'z'};
    pkgd::LCM_generate_uuid(full, "foo..", pkgd::UUID_NAMESPACE_DNS, 0);
    EXPECT_EQ(std::string(full.data(), full.size()), "wxyz");

    EXPECT_EQ(generate("", pkgd::UUID_NAMESPACE_DNS, 0, "keep"), "keep");
    EXPECT_EQ(generate(std::string_view("\0x", 2), pkgd::UUID_NAMESPACE_DNS, 0, "keep"), "keep");
    EXPECT_EQ(generate("foo..", 4, 0, "keep"), "keep");
    EXPECT_EQ(generate("foo..", -1, 1, "keep"), "keep");
}

TEST(LcmUuid, RecordFieldKeepsItsCapacity) {
    pkgd::FixedText<64> uuid;
    pkgd::LCM_generate_uuid(uuid, "foo..", pkgd::UUID_NAMESPACE_DNS, 0);
    EXPECT_EQ(uuid, kFooV5);

    pkgd::FixedText<40> prefixed("urn:");
    pkgd::LCM_generate_uuid(prefixed, "foo..", pkgd::UUID_NAMESPACE_DNS, 0);
    EXPECT_EQ(prefixed, "urn:" + std::string(kFooV5.substr(0, 35)));

    pkgd::FixedText<64> untouched("x");
    pkgd::LCM_generate_uuid(untouched, "", pkgd::UUID_NAMESPACE_DNS, 0);
    EXPECT_EQ(untouched, "x");
}

TEST(UuidCompare, FirstDifferingFieldDecidesAsUnsigned) {
    const pkgd::uuid_fields a = pkgd::NameSpace_DNS;
    EXPECT_EQ(pkgd::uuid_compare(a, a), 0);

    pkgd::uuid_fields last = a;
    last.node[5] = static_cast<std::uint8_t>(a.node[5] + 1);
    EXPECT_EQ(pkgd::uuid_compare(a, last), -1);
    EXPECT_EQ(pkgd::uuid_compare(last, a), 1);

    // An earlier field outweighs every later one; the top bit makes a value large, not negative.
    pkgd::uuid_fields mid = a;
    mid.time_mid = static_cast<std::uint16_t>(a.time_mid + 1);
    mid.node.fill(0);
    EXPECT_EQ(pkgd::uuid_compare(mid, a), 1);
    pkgd::uuid_fields clock = a;
    clock.clock_seq_hi_and_reserved = 0;
    clock.clock_seq_low = 0xFF;
    EXPECT_EQ(pkgd::uuid_compare(clock, a), -1);
    pkgd::uuid_fields high = a;
    high.time_low = 0xFFFFFFFF;
    pkgd::uuid_fields low = a;
    low.time_low = 1;
    EXPECT_EQ(pkgd::uuid_compare(high, low), 1);
}

}  // namespace

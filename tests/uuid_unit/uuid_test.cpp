// Name-based UUIDs: the text a deployment unit gets from its name (escaping, namespace, version,
// the bounded append into a record's buffer). Expected UUIDs were computed independently.
#include "pkgd/uuid.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <string>

namespace {

using namespace pkgd;

constexpr std::string_view kFooV5 = "43e59cb0-d70e-598c-a3c9-3f0a8960e463";

template <std::size_t N = 64>
std::string generate(std::string_view name, int kind, int use_md5, std::string_view before = "") {
    std::array<char, N> buf{};
    std::memcpy(buf.data(), before.data(), std::min(before.size(), N));
    LCM_generate_uuid(buf, name, kind, use_md5);
    return std::string(buf.data(), strnlen(buf.data(), N));
}

TEST(LcmUuid, UnitNamesGiveTheWellKnownUuidsInEveryNamespaceEscapedAsTheInstallerDoes) {
    // "name.vendor", or "name.." without a vendor, is what the installer hashes; bytes outside the
    // safe set are escaped without leading zeros ("a%20b%9%c3%7e"); the name ends at a NUL.
    const std::tuple<std::string_view, int, int, std::string_view> cases[] = {
        {"foo..", UUID_NAMESPACE_DNS, 0, kFooV5},
        {"foo.ACME Inc", UUID_NAMESPACE_DNS, 0, "400b6402-f0dd-5feb-9bef-d9a39a3181de"},
        {"foo..", UUID_NAMESPACE_DNS, 1, "4a3b3667-92f4-30c4-a533-476153e60a0a"},
        {"foo.ACME Inc", UUID_NAMESPACE_DNS, 7, "c9d510da-5d40-3e67-8609-5480614e6f82"},
        {"foo..", UUID_NAMESPACE_URL, 0, "b5e7fabd-4022-56a0-a851-b59d5e63f3b8"},
        {"foo..", UUID_NAMESPACE_OID, 1, "2a314a73-bfe5-3750-9d03-8e9e270c066f"},
        {"foo..", UUID_NAMESPACE_X500, 0, "c14aeabb-cb93-5553-9915-7f00ddfbd12c"},
        {"foo..", UUID_NAMESPACE_X500, 1, "9395107c-52a8-37ed-8987-e3713cf559dc"},
        {"a b\t\xc3~", UUID_NAMESPACE_DNS, 0, "0565c669-e40d-5a1a-844e-8642f1404831"},
        {"Az09_-", UUID_NAMESPACE_DNS, 0, "883472a2-b92e-5750-b8ef-ce9d35886e76"},
        {std::string_view("foo..\0bar", 9), UUID_NAMESPACE_DNS, 0, kFooV5},
    };
    for (const auto& [name, kind, md5, uuid] : cases) EXPECT_EQ(generate(name, kind, md5), uuid) << name;
}

TEST(LcmUuid, AppendsWithinTheBufferAndLeavesItAloneWhenThereIsNothingToWrite) {
    EXPECT_EQ(generate("foo..", UUID_NAMESPACE_DNS, 0, "id:"), "id:" + std::string(kFooV5));
    EXPECT_EQ(generate<20>("foo..", UUID_NAMESPACE_DNS, 0), kFooV5.substr(0, 19));
    EXPECT_EQ(generate<8>("foo..", UUID_NAMESPACE_DNS, 0, "abc"), "abc" + std::string(kFooV5.substr(0, 4)));
    EXPECT_EQ(generate<4>("foo..", UUID_NAMESPACE_DNS, 0, "wxyz"), "wxyz");  // no terminator to append at
    for (const auto& [name, kind] : {std::pair<std::string_view, int>{"", UUID_NAMESPACE_DNS},
                                     {std::string_view("\0x", 2), UUID_NAMESPACE_DNS},
                                     {"foo..", 4},
                                     {"foo..", -1}})
        EXPECT_EQ(generate(name, kind, 1, "keep"), "keep") << kind;

}

}  // namespace

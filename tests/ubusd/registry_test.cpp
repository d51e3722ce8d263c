// The object registry as lookups see it.
#include <gtest/gtest.h>

#include "broker_process.hpp"
#include "poll.hpp"
#include "raw_client.hpp"

namespace bus_test {
namespace {

struct Listed {
    int status;
    std::vector<std::string> paths;
    bool operator==(const Listed&) const = default;
};

Listed lookup(RawClient& c, std::optional<std::string> path) {
    static std::uint16_t seq = 100;
    ubus::MsgBuf msg = lookup_msg(++seq, std::move(path));
    const Reply r = c.request(msg);
    Listed out{r.status, {}};
    for (const Received& d : r.data) out.paths.emplace_back(d.attrs().str(ubus::kAttrObjPath));
    return out;
}

TEST(Registry, LookupsSelectByExactPathOrPrefixInByteOrderAndFreedPathsAreReused) {
    BrokerProcess broker;
    RawClient owner(broker.socket()), c(broker.socket());
    EXPECT_EQ(lookup(c, std::nullopt), (Listed{0, {}})) << "an empty bus lists nothing, successfully";
    std::uint16_t seq = 1;
    for (const char* p : {"b", "a.x", "\xc3\xa9", "a", "A", "ab", "a*b"}) add_object(owner, p, seq++);
    // A type the broker never issued, and a signature with an unnamed method: objects that hold
    // their path but are never listed.
    ubus::MsgBuf unknown_type(ubus::MsgType::AddObject, seq++, 0),
        unnamed(ubus::MsgType::AddObject, seq++, 0);
    unknown_type.put_string(ubus::kAttrObjPath, "a.typeless");
    unknown_type.put_u32(ubus::kAttrObjType, 0x0badbad0);
    unnamed.put_string(ubus::kAttrObjPath, "a.unnamed");
    const auto sig = unnamed.nest_open(ubus::kAttrSignature);
    unnamed.close(unnamed.open_table(""));
    unnamed.close(sig);
    EXPECT_EQ(owner.status_of(std::move(unknown_type)), 0);
    EXPECT_EQ(owner.status_of(std::move(unnamed)), 0);

    const std::vector<std::string> every = {"A", "a", "a*b", "a.x", "ab", "b", "\xc3\xa9"};
    // (An empty path and a prefix nothing has are refused as the captures show.)
    const std::pair<std::optional<std::string>, Listed> cases[] = {
        {std::nullopt, {0, every}}, {"*", {0, every}},          {"a*", {0, {"a", "a*b", "a.x", "ab"}}},
        {"a.*", {0, {"a.x"}}},      {"a*b", {0, {"a*b"}}},      {"a.x", {0, {"a.x"}}},
        {"a.", {4, {}}},            {"a.typeless", {0, {}}},    {"a.unnamed", {0, {}}},
    };
    for (const auto& [path, expected] : cases) EXPECT_EQ(lookup(c, path), expected) << path.value_or("(all)");

    owner.close();
    ASSERT_TRUE(testsupport::poll_until(5s, [&] { return lookup(c, "a").status != 0; }, 10ms));
    EXPECT_NE(add_object(c, "a", 2), 0u) << "the departed owner's path is free again";
    EXPECT_EQ(lookup(c, "*"), (Listed{0, {"a"}}));
}

}  // namespace
}  // namespace bus_test

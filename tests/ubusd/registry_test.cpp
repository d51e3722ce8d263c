// The object registry as lookups see it.
#include <gtest/gtest.h>
#include <sys/ioctl.h>

#include <algorithm>

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

TEST(Registry, ALongListingWaitsForASlowReaderInsteadOfLosingEntries) {
    BrokerProcess broker;
    RawClient owner(broker.socket());
    // About 2.5 MiB of listing: more than the queue a client that does not read may have.
    constexpr int kObjects = 2000;
    ubus::MsgBuf add;
    for (int i = 0; i < kObjects; ++i) {
        add.start(ubus::MsgType::AddObject, static_cast<std::uint16_t>(i + 1), 0);
        add.put_string(ubus::kAttrObjPath, "obj." + std::to_string(10000 + i));
        const auto sig = add.nest_open(ubus::kAttrSignature);
        const auto method = add.open_table("method");
        for (int arg = 0; arg < 80; ++arg) add.add_i32("arg" + std::to_string(arg), 3);
        add.close(method);
        add.close(sig);
        owner.send(add);
        if (i % 100 == 99) {
            EXPECT_EQ(owner.sync().size(), 200u);  // keeps the owner's answers flowing
        }
    }

    RawClient reader(broker.socket());
    ubus::MsgBuf list = lookup_msg(1), ping(ubus::MsgType::Ping, 2, 0);
    reader.send(list);
    reader.send(ping);
    // Once answering started and the broker is idle again, whatever it could not send is queued (or,
    // were it to lose entries, lost).
    ASSERT_TRUE(testsupport::poll_until(5s, [&] {
        int queued = 0;
        return ::ioctl(reader.fd(), FIONREAD, &queued) == 0 && queued > 0;
    }));
    ASSERT_TRUE(broker.wait_until_idle());
    std::vector<std::string> paths;
    for (auto r = reader.read(); r && r->hdr().type == ubus::MsgType::Data; r = reader.read())
        paths.emplace_back(r->attrs().str(ubus::kAttrObjPath));
    ASSERT_EQ(paths.size(), static_cast<std::size_t>(kObjects));
    EXPECT_TRUE(std::ranges::is_sorted(paths));
    const auto pong = reader.read();  // the request queued behind the listing is answered after it
    ASSERT_TRUE(pong);
    EXPECT_EQ(pong->hdr().seq, 2);
}

}  // namespace
}  // namespace bus_test

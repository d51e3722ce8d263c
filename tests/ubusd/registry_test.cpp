// The object registry as lookups see it.
#include <gtest/gtest.h>

#include <thread>

#include "broker_process.hpp"
#include "raw_client.hpp"

namespace ubusd_test {
namespace {

using ubus::MsgType;

struct Listed {
    int status;
    std::vector<std::string> paths;
};

Listed lookup(RawClient& c, std::optional<std::string> path) {
    static std::uint16_t seq = 100;
    ubus::MsgBuf msg = lookup_msg(++seq, std::move(path));
    const Reply r = c.request(msg);
    Listed out{r.status, {}};
    for (const Received& d : r.data) out.paths.emplace_back(d.attrs().str(ubus::kAttrObjPath));
    return out;
}

TEST(Registry, LookupsSelectByExactPathOrPrefixInByteOrder) {
    BrokerProcess broker;
    RawClient owner(broker.socket());
    RawClient c(broker.socket());
    EXPECT_EQ(lookup(c, std::nullopt).status, 0) << "an empty bus lists nothing, successfully";
    std::uint16_t seq = 1;
    for (const char* p : {"b", "a.x", "\xc3\xa9", "a", "A", "ab", "a*b"}) add_object(owner, p, seq++);

    // A type the broker never issued, and a signature with an unnamed method: both give objects
    // that hold their path but are never listed.
    ubus::MsgBuf unknown_type(MsgType::AddObject, seq++, 0);
    unknown_type.put_string(ubus::kAttrObjPath, "a.typeless");
    unknown_type.put_u32(ubus::kAttrObjType, 0x0badbad0);
    EXPECT_EQ(owner.request(unknown_type).status, 0);
    ubus::MsgBuf unnamed(MsgType::AddObject, seq++, 0);
    unnamed.put_string(ubus::kAttrObjPath, "a.unnamed");
    const auto sig = unnamed.nest_open(ubus::kAttrSignature);
    unnamed.close(unnamed.open_table(""));
    unnamed.close(sig);
    EXPECT_EQ(owner.request(unnamed).status, 0);

    using V = std::vector<std::string>;
    EXPECT_EQ(lookup(c, std::nullopt).paths, (V{"A", "a", "a*b", "a.x", "ab", "b", "\xc3\xa9"}));
    EXPECT_EQ(lookup(c, "*").paths, (V{"A", "a", "a*b", "a.x", "ab", "b", "\xc3\xa9"}));
    EXPECT_EQ(lookup(c, "a*").paths, (V{"a", "a*b", "a.x", "ab"}));
    EXPECT_EQ(lookup(c, "a.*").paths, (V{"a.x"}));
    EXPECT_EQ(lookup(c, "a*b").paths, (V{"a*b"}));
    EXPECT_EQ(lookup(c, "a.x").paths, (V{"a.x"}));
    EXPECT_EQ(lookup(c, "zz*").status, ubus::kNotFound);
    EXPECT_EQ(lookup(c, "a.").status, ubus::kNotFound);
    EXPECT_EQ(lookup(c, "").status, ubus::kInvalidArgument);
    const Listed typeless = lookup(c, "a.typeless");
    EXPECT_EQ(typeless.status, 0);
    EXPECT_TRUE(typeless.paths.empty());
    EXPECT_TRUE(lookup(c, "a.unnamed").paths.empty());
}

TEST(Registry, ARemovedObjectsPathIsFreeForAnyone) {
    BrokerProcess broker;
    RawClient first(broker.socket());
    RawClient second(broker.socket());
    const Registered old = add_object(first, "svc");
    ubus::MsgBuf again = add_object_msg(2, "svc");
    EXPECT_EQ(second.request(again).status, ubus::kInvalidArgument);
    // The removal event tells when the broker has dealt with the departure.
    const std::uint32_t listener = add_object(second, std::nullopt, 3).obj;
    ubus::MsgBuf reg = register_msg(4, listener, "ubus.object.remove");
    EXPECT_EQ(second.request(reg).status, 0);
    first.close();
    auto removed = second.read();
    ASSERT_TRUE(removed);
    EXPECT_EQ(removed->attrs().str(ubus::kAttrMethod), "ubus.object.remove");
    const Registered now = add_object(second, "svc", 5);
    EXPECT_NE(now.obj, old.obj);
    EXPECT_NE(now.obj, 0u);
    const Listed l = lookup(second, "svc");
    EXPECT_EQ(l.paths, std::vector<std::string>{"svc"});
}

TEST(Registry, ALongListingWaitsForASlowReaderInsteadOfLosingEntries) {
    BrokerProcess broker;
    RawClient owner(broker.socket());
    // About 2.5 MiB of listing: more than the queue a client that does not read may have.
    constexpr int kObjects = 2000;
    ubus::MsgBuf add(ubus::MsgType::AddObject, 0, 0);
    for (int i = 0; i < kObjects; ++i) {
        add.start(ubus::MsgType::AddObject, static_cast<std::uint16_t>(i + 1), 0);
        add.put_string(ubus::kAttrObjPath, "obj." + std::to_string(10000 + i));
        const auto sig = add.nest_open(ubus::kAttrSignature);
        const auto method = add.open_table("method");
        for (int arg = 0; arg < 80; ++arg) add.add_i32("arg" + std::to_string(arg), 3);
        add.close(method);
        add.close(sig);
        owner.send(add);
        // Keep the owner's own answers flowing.
        if (i % 100 == 99) {
            EXPECT_EQ(owner.sync().size(), 200u);
        }
    }
    EXPECT_EQ(owner.sync().size(), 0u);

    RawClient reader(broker.socket());
    ubus::MsgBuf list = lookup_msg(1);
    reader.send(list);
    ubus::MsgBuf ping(ubus::MsgType::Ping, 2, 0);
    reader.send(ping);
    // Give the broker ample time to overrun the reader if it did not wait for it.
    std::this_thread::sleep_for(300ms);
    int entries = 0;
    std::string last;
    for (;;) {
        auto r = reader.read();
        ASSERT_TRUE(r);
        if (r->hdr().type == ubus::MsgType::Status) {
            EXPECT_EQ(r->hdr().seq, 1);
            EXPECT_EQ(r->attrs().u32(ubus::kAttrStatus), 0u);
            break;
        }
        const std::string path(r->attrs().str(ubus::kAttrObjPath));
        EXPECT_LT(last, path);
        last = path;
        ++entries;
    }
    EXPECT_EQ(entries, kObjects);
    // The request queued behind the listing is answered after it.
    auto pong = reader.read();
    ASSERT_TRUE(pong);
    EXPECT_EQ(pong->hdr().seq, 2);
}

}  // namespace
}  // namespace ubusd_test

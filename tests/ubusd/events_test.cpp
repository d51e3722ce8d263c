// Events through object 1: who receives what, how it is numbered, and which requests are refused.
#include <gtest/gtest.h>

#include <set>

#include "broker_process.hpp"
#include "raw_client.hpp"
#include "ubus/json.hpp"

namespace bus_test {
namespace {

using V = std::vector<std::string>;

// An anonymous listener object of `c`, registered for `patterns`.
std::uint32_t listener(RawClient& c, std::initializer_list<const char*> patterns) {
    const std::uint32_t obj = add_object(c, std::nullopt);
    std::uint16_t seq = 2;
    for (const char* p : patterns) EXPECT_EQ(c.status_of(register_msg(seq++, obj, p)), 0) << p;
    return obj;
}

std::string json(ubus::Bytes members) {
    std::string out;
    ubus::json_format_list(out, members, false);
    return out;
}

TEST(Events, PatternsChooseListenersEachObjectGetsOneCopyNumberedBrokerWideAndTheSenderNone) {
    BrokerProcess broker;
    RawClient sender(broker.socket()), all(broker.socket()), overlapping(broker.socket()),
        demo(broker.socket()), prefix(broker.socket()), literal(broker.socket());
    listener(sender, {"*"});
    const std::pair<RawClient*, std::uint32_t> listeners[] = {
        {&all, listener(all, {"*"})},
        {&overlapping, listener(overlapping, {"demo.*", "*", "demo.x", "demo.*"})},
        {&demo, listener(demo, {"demo.*"})},
        {&prefix, listener(prefix, {"de*"})},
        {&literal, listener(literal, {"a*b"})},  // a star inside a pattern is just a character
    };
    const V every = {"demo.x", "demo", "dex", "demo.*", "a*b", "axb"};
    std::uint16_t seq = 1;
    for (const std::string& name : every) EXPECT_EQ(sender.status_of(event_msg(seq++, name)), 0);

    // The sender had its answers only after the deliveries went out, so they are all there now.
    // (What a delivery looks like is the events capture's.)
    EXPECT_TRUE(sender.sync().empty());
    const V expected[] = {every, every, {"demo.x", "demo.*"}, {"demo.x", "demo", "dex", "demo.*"}, {"a*b"}};
    std::multiset<std::uint16_t> seqs;
    for (std::size_t i = 0; i < std::size(listeners); ++i) {
        V got;
        for (const Received& r : listeners[i].first->sync()) {
            EXPECT_EQ(r.attrs().u32(ubus::kAttrObjId), listeners[i].second);
            seqs.insert(r.hdr().seq);
            got.emplace_back(r.method());
        }
        EXPECT_EQ(got, expected[i]) << "listener " << i;
    }
    std::multiset<std::uint16_t> numbered;
    for (std::uint16_t n = 1; n <= 19; ++n) numbered.insert(n);
    EXPECT_EQ(seqs, numbered);

    // The broker's own events reach everyone, the object's owner too, before the ADD_OBJECT answer.
    const std::uint32_t watched = add_object(all, "watched", 10);
    ASSERT_EQ(all.other.size(), 1u);
    EXPECT_EQ(all.other[0].method(), "ubus.object.add");
    EXPECT_EQ(json(all.other[0].attrs().data()),
              R"({"id":)" + std::to_string(static_cast<std::int32_t>(watched)) + R"(,"path":"watched"})");
    ASSERT_EQ(sender.sync().size(), 1u);
}

}  // namespace
}  // namespace bus_test

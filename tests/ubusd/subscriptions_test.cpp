// Subscriptions beyond the capture: the owner learns whether anyone watches, a notification names
// every subscriber, and refusals carry their codes.
#include <gtest/gtest.h>

#include "broker_process.hpp"
#include "raw_client.hpp"

namespace bus_test {
namespace {

using ubus::MsgType;

ubus::MsgBuf watch_msg(MsgType type, std::uint16_t seq, std::uint32_t subscriber, std::uint32_t target) {
    ubus::MsgBuf m(type, seq, 0);
    m.put_u32(ubus::kAttrObjId, subscriber);
    m.put_u32(ubus::kAttrTarget, target);
    return m;
}

ubus::MsgBuf notify_msg(std::uint16_t seq, std::uint32_t obj) {
    ubus::MsgBuf m(MsgType::Notify, seq, obj);
    m.put_u32(ubus::kAttrObjId, obj);
    m.put_string(ubus::kAttrMethod, "changed");
    m.put_raw(ubus::kAttrData, {});
    return m;
}

// The owner's "is anyone watching" messages so far, as ACTIVE values; their seq counts up.
std::vector<int> activity(RawClient& owner, std::uint32_t obj, std::uint16_t& seq) {
    std::vector<int> out;
    for (const Received& r : owner.sync()) {
        EXPECT_EQ(r.hdr().type, MsgType::Notify);
        EXPECT_EQ(r.hdr().seq, ++seq);
        EXPECT_EQ(r.attrs().u32(ubus::kAttrObjId), obj);
        out.push_back(r.attrs().u8(ubus::kAttrActive));
    }
    return out;
}

TEST(Subscriptions, TheOwnerHearsOnlyOfTheFirstAndLastSubscriberAndANotifyNamesThemAll) {
    BrokerProcess broker;
    RawClient owner(broker.socket()), sub1(broker.socket()), sub2(broker.socket());
    const std::uint32_t target = add_object(owner, "demo");
    const std::uint32_t s1 = add_object(sub1, std::nullopt), s2 = add_object(sub2, std::nullopt);
    std::uint16_t owner_seq = 0;
    EXPECT_EQ(sub1.status_of(watch_msg(MsgType::Subscribe, 2, s1, target)), 0);
    EXPECT_EQ(sub1.status_of(watch_msg(MsgType::Subscribe, 3, s1, target)), 0) << "twice is harmless";
    EXPECT_EQ(sub2.status_of(watch_msg(MsgType::Subscribe, 2, s2, target)), 0);
    EXPECT_EQ(activity(owner, target, owner_seq), std::vector<int>{1});

    // The capture has one subscriber; with two, the owner's answer names both (their forwarding and
    // acknowledgements are the capture's).
    ubus::MsgBuf notify = notify_msg(40, target);
    owner.send(notify);
    auto listed = owner.read();
    ASSERT_TRUE(listed);
    std::vector<std::uint32_t> subscribers;
    for (ubus::Attr a : listed->attrs()[ubus::kAttrSubscribers].nested()) subscribers.push_back(a.u32());
    EXPECT_EQ(subscribers, (std::vector<std::uint32_t>{s1, s2}));

    // The owner hears again only when the last subscriber goes, whichever way it goes.
    EXPECT_EQ(sub1.status_of(watch_msg(MsgType::Unsubscribe, 4, s1, target)), 0);
    EXPECT_EQ(sub1.status_of(watch_msg(MsgType::Unsubscribe, 5, s1, target)), ubus::kNotFound);
    EXPECT_TRUE(activity(owner, target, owner_seq).empty());
    sub2.close();
    auto inactive = owner.read();  // once the broker noticed sub2 leave
    ASSERT_TRUE(inactive);
    EXPECT_EQ(inactive->hdr().seq, ++owner_seq);
    EXPECT_EQ(inactive->attrs().u8(ubus::kAttrActive), 0);
}

}  // namespace
}  // namespace bus_test

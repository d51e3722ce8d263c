// Subscriptions: the owner learns whether anyone watches, notifications fan out to subscribers
// and their answers find the owner, and refusals carry their codes.
#include <gtest/gtest.h>

#include "broker_process.hpp"
#include "raw_client.hpp"

namespace ubusd_test {
namespace {

using ubus::MsgType;

ubus::MsgBuf watch_msg(MsgType type, std::uint16_t seq, std::uint32_t subscriber, std::uint32_t target) {
    ubus::MsgBuf m(type, seq, 0);
    m.put_u32(ubus::kAttrObjId, subscriber);
    m.put_u32(ubus::kAttrTarget, target);
    return m;
}

ubus::MsgBuf notify_msg(std::uint16_t seq, std::uint32_t obj, bool no_reply) {
    ubus::BlobBuf data;
    data.add_string("what", "changed");
    ubus::MsgBuf m(MsgType::Notify, seq, obj);
    m.put_u32(ubus::kAttrObjId, obj);
    m.put_string(ubus::kAttrMethod, "changed");
    m.put_data(data);
    if (no_reply) m.put_u8(ubus::kAttrNoReply, 1);
    return m;
}

// The owner's "is anyone watching" messages so far: ACTIVE values, with their seq checked.
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

TEST(Subscriptions, NotificationsReachEverySubscriberAndTheirAnswersReachTheOwner) {
    BrokerProcess broker;
    RawClient owner(broker.socket());
    RawClient sub1(broker.socket());
    RawClient sub2(broker.socket());
    const std::uint32_t target = add_object(owner, "demo").obj;
    const std::uint32_t s1 = add_object(sub1, std::nullopt).obj;
    const std::uint32_t s2 = add_object(sub2, std::nullopt).obj;
    std::uint16_t owner_seq = 0;

    ubus::MsgBuf subscribe1 = watch_msg(MsgType::Subscribe, 2, s1, target);
    EXPECT_EQ(sub1.request(subscribe1).status, 0);
    EXPECT_EQ(sub1.request(subscribe1).status, 0) << "subscribing twice is harmless";
    ubus::MsgBuf subscribe2 = watch_msg(MsgType::Subscribe, 2, s2, target);
    EXPECT_EQ(sub2.request(subscribe2).status, 0);
    EXPECT_EQ(activity(owner, target, owner_seq), std::vector<int>{1})
        << "told once, at the first subscriber";

    ubus::MsgBuf notify = notify_msg(40, target, false);
    owner.send(notify);
    auto listed = owner.read();
    ASSERT_TRUE(listed);
    EXPECT_EQ(listed->hdr().type, MsgType::Status);
    EXPECT_EQ(listed->hdr().peer, target);
    std::vector<std::uint32_t> subscribers;
    for (ubus::Attr a : listed->attrs()[ubus::kAttrSubscribers].nested()) subscribers.push_back(a.u32());
    EXPECT_EQ(subscribers, (std::vector<std::uint32_t>{s1, s2}));

    // Each subscriber answers the owner's client; the owner sees the answer come from its object.
    for (auto [client, obj] : {std::pair{&sub1, s1}, std::pair{&sub2, s2}}) {
        auto in = client->read();
        ASSERT_TRUE(in);
        EXPECT_EQ(in->hdr().seq, 40);
        EXPECT_EQ(in->hdr().peer, owner.id());
        EXPECT_EQ(in->attrs().u32(ubus::kAttrObjId), obj);
        EXPECT_TRUE(in->attrs().has(ubus::kAttrUser));
        EXPECT_TRUE(std::ranges::equal(in->attrs().data(), ubus::MsgAttrs(notify.members()).data()));
        ubus::MsgBuf ack = status_msg(40, owner.id(), obj, 0);
        client->send(ack);
        auto back = owner.read();
        ASSERT_TRUE(back);
        EXPECT_EQ(back->hdr().peer, obj);
    }

    // Without replies wanted, the owner hears nothing and subscribers are told so up front.
    ubus::MsgBuf quiet = notify_msg(41, target, true);
    owner.send(quiet);
    auto in = sub1.read();
    ASSERT_TRUE(in);
    EXPECT_EQ(ubus::Attr::at(ubus::Bytes(in->bytes).subspan(12)).id(), ubus::kAttrNoReply);
    ASSERT_TRUE(sub2.read());
    EXPECT_TRUE(owner.sync().empty());

    // The owner hears again only when the last subscriber goes, whichever way it goes.
    ubus::MsgBuf unsubscribe1 = watch_msg(MsgType::Unsubscribe, 3, s1, target);
    EXPECT_EQ(sub1.request(unsubscribe1).status, 0);
    EXPECT_EQ(sub1.request(unsubscribe1).status, ubus::kNotFound);
    EXPECT_TRUE(activity(owner, target, owner_seq).empty());
    sub2.close();
    auto inactive = owner.read();  // comes once the broker has noticed sub2 leave
    ASSERT_TRUE(inactive);
    EXPECT_EQ(inactive->hdr().seq, ++owner_seq);
    EXPECT_EQ(inactive->attrs().u8(ubus::kAttrActive), 0);
    EXPECT_EQ(sub1.request(subscribe1).status, 0);
    EXPECT_EQ(activity(owner, target, owner_seq), std::vector<int>{1});

    // The target goes: its subscribers are told, with their own object's counter.
    ubus::MsgBuf remove(MsgType::RemoveObject, 9, 0);
    remove.put_u32(ubus::kAttrObjId, target);
    EXPECT_EQ(owner.request(remove).status, 0);
    auto gone = sub1.read();
    ASSERT_TRUE(gone);
    EXPECT_EQ(gone->hdr().type, MsgType::Unsubscribe);
    EXPECT_EQ(gone->hdr().seq, 1);
    EXPECT_EQ(gone->attrs().u32(ubus::kAttrObjId), s1);
    EXPECT_EQ(gone->attrs().u32(ubus::kAttrTarget), target);
}

TEST(Subscriptions, BadRequestsAreRefusedWithTheirCodes) {
    BrokerProcess broker;
    RawClient owner(broker.socket());
    RawClient other(broker.socket());
    const std::uint32_t target = add_object(owner, "demo").obj;
    const std::uint32_t own_anon = add_object(owner, std::nullopt, 2).obj;
    const std::uint32_t sub = add_object(other, std::nullopt).obj;
    auto status = [](RawClient& c, ubus::MsgBuf msg) { return c.request(msg).status; };

    ubus::MsgBuf no_target(MsgType::Subscribe, 1, 0);
    no_target.put_u32(ubus::kAttrObjId, sub);
    EXPECT_EQ(status(other, no_target), ubus::kInvalidArgument);
    EXPECT_EQ(status(other, watch_msg(MsgType::Subscribe, 2, 0x1234567, target)), ubus::kNotFound);
    EXPECT_EQ(status(other, watch_msg(MsgType::Subscribe, 3, own_anon, target)), ubus::kInvalidArgument);
    EXPECT_EQ(status(other, watch_msg(MsgType::Subscribe, 4, sub, 0x1234567)), ubus::kNotFound);
    EXPECT_EQ(status(other, watch_msg(MsgType::Subscribe, 5, sub, ubus::kEventObject)), ubus::kNotFound);
    EXPECT_EQ(status(owner, watch_msg(MsgType::Subscribe, 6, own_anon, target)), ubus::kInvalidArgument);

    ubus::MsgBuf no_method(MsgType::Notify, 7, target);
    no_method.put_u32(ubus::kAttrObjId, target);
    EXPECT_EQ(status(owner, no_method), ubus::kInvalidArgument);
    EXPECT_EQ(status(owner, notify_msg(8, 0x1234567, false)), ubus::kNotFound);
    EXPECT_EQ(status(other, notify_msg(9, target, false)), ubus::kPermissionDenied);
    EXPECT_TRUE(owner.sync().empty()) << "no subscription was made";
}

}  // namespace
}  // namespace ubusd_test

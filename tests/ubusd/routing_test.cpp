// Calls through the broker: who may answer and what travels with a call and its answers.
#include <gtest/gtest.h>

#include <optional>

#include "broker_process.hpp"
#include "raw_client.hpp"

namespace bus_test {
namespace {

using ubus::MsgType;

class Routing : public ::testing::Test {
protected:
    BrokerProcess broker;
    RawClient owner{broker.socket()}, caller{broker.socket()};
    std::uint32_t demo = add_object(owner, "demo");

    // The call as the owner receives it.
    std::optional<Received> call_demo(RawClient& from, std::uint16_t seq, bool no_reply = false) {
        ubus::MsgBuf call = invoke_msg(seq, demo, "m1");
        if (no_reply) call.put_u8(ubus::kAttrNoReply, 1);
        from.send(call);
        return owner.read();
    }
    // A reply of the owner's to `seq` of the caller.
    ubus::MsgBuf data_reply(std::uint16_t seq, bool with_payload = true) {
        ubus::MsgBuf data(MsgType::Data, seq, caller.id());
        data.put_u32(ubus::kAttrObjId, demo);
        ubus::BlobBuf payload;
        payload.add_string("k", "v");
        if (with_payload) data.put_data(payload);
        return data;
    }
};

TEST_F(Routing, OnlyTheOwnersCompleteRepliesReachTheCaller) {
    const auto in = call_demo(caller, 7, true);  // NO_REPLY is not the caller's to decide
    ASSERT_TRUE(in);
    EXPECT_EQ(in->hdr().peer, caller.id());
    EXPECT_FALSE(in->attrs().has(ubus::kAttrNoReply));
    // A STATUS naming the object from someone else, and replies lacking their payload: dropped
    // without an answer to anyone.
    RawClient intruder(broker.socket());
    add_object(intruder, "other");
    ubus::MsgBuf forged = status_msg(7, caller.id(), demo, 0), bare_data = data_reply(7, false),
                 bare_status(MsgType::Status, 7, caller.id()), real = status_msg(7, caller.id(), demo, 3);
    bare_status.put_u32(ubus::kAttrObjId, demo);
    intruder.send(forged);
    owner.send(bare_data);
    owner.send(bare_status);
    for (RawClient* c : {&intruder, &owner, &caller}) EXPECT_TRUE(c->sync().empty());
    owner.send(real);
    EXPECT_TRUE(owner.sync().empty());  // dealt with before the caller's own round trip
    const std::vector<Received> answers = caller.sync();
    ASSERT_EQ(answers.size(), 1u);
    EXPECT_EQ(answers[0].hdr().type, MsgType::Status);
    EXPECT_EQ(answers[0].hdr().peer, demo);
    EXPECT_EQ(answers[0].attrs().u32(ubus::kAttrStatus), 3u);
}

TEST_F(Routing, AnswersToACallerThatLeftAreDropped) {
    RawClient gone(broker.socket());
    ASSERT_TRUE(call_demo(gone, 1));
    const std::uint32_t gone_id = gone.id();
    gone.close();
    ubus::MsgBuf late = status_msg(1, gone_id, demo, 0);
    owner.send(late);
    EXPECT_TRUE(owner.sync().empty()) << "the owner carries on";
}

}  // namespace
}  // namespace bus_test

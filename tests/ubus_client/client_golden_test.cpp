// The client library against captured reference traffic: a fake broker plays the broker's side of
// a capture and checks every message the client sends, byte for byte.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>

#include "demo_object.hpp"
#include "fake_broker.hpp"
#include "golden_session.hpp"
#include "ubus/loop.hpp"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// The DATA members of a captured message, as hex.
std::string data_hex(const std::vector<std::uint8_t>& frame) {
    return golden::hex(ubus::MsgAttrs(ubus::Bytes(frame).subspan(12)).data());
}

// The first message of `type` and `seq` the broker sent to `label` in a capture.
std::vector<std::uint8_t> captured(std::string_view file, std::string_view label, ubus::MsgType type,
                                   std::uint16_t seq) {
    for (const golden::Step& s : golden::read_session(file)) {
        if (s.kind != golden::Step::FromBroker || s.label != label) continue;
        const ubus::MsgHeader h = ubus::decode_header(s.bytes.data());
        if (h.type == type && h.seq == seq) return s.bytes;
    }
    return {};
}

TEST(ClientGolden, CallerLooksUpInvokesAndCollectsEachReply) {
    fake::Broker broker(fake::script_of("session_call_with_data.txt", "cli"));
    ubus::Connection bus;
    ASSERT_EQ(bus.connect(broker.path()), ubus::kOk);
    EXPECT_EQ(bus.client_id(), 0xf5a14626u);

    std::vector<ubus::ObjectInfo> found;
    ASSERT_EQ(bus.lookup("demo", [&](const ubus::ObjectInfo& o) { found.push_back(o); }), ubus::kOk);
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].id, 0x9a1af886u);
    EXPECT_EQ(found[0].type, 0x4403977eu);
    const fake::Demo demo(bus);  // the owner's type: same signature as the one looked up
    EXPECT_EQ(golden::hex(found[0].signature), golden::hex(demo.type->signature()));

    ubus::BlobBuf args;
    args.add_i32("id", 42);
    args.add_string("msg", "hi there");
    std::vector<std::string> replies;
    EXPECT_EQ(bus.invoke(
                  found[0].id, "hello", args.members(),
                  [&](ubus::Bytes data) { replies.push_back(golden::hex(data)); }, 5000),
              ubus::kOk);
    EXPECT_THAT(replies,
                ElementsAre(data_hex(captured("session_call_with_data.txt", "cli", ubus::MsgType::Data, 2))));
    EXPECT_THAT(broker.finish(), IsEmpty());
}

TEST(ClientGolden, OwnerRegistersAndAnswersForwardedCalls) {
    fake::Broker broker(fake::script_of("invoke_owner_side.txt", "srv"));
    ubus::Connection bus;
    ASSERT_EQ(bus.connect(broker.path()), ubus::kOk);
    fake::Demo demo(bus);
    const ubus::AddResult added = bus.add_object("demo", demo.type);
    EXPECT_EQ(added.status, ubus::kOk);
    EXPECT_EQ(added.id, 0x9a1af886u);
    fake::pump(bus, broker);  // hello is answered with DATA + STATUS 0, "nosuch" with STATUS 3
    EXPECT_THAT(broker.finish(), IsEmpty());
    EXPECT_THAT(demo.callers, ElementsAre("root/root"));
}

TEST(ClientGolden, ReplyArrivingAfterTheTimeoutNeverReachesTheNextCall) {
    auto script = fake::script_of("session_timeout_late_reply.txt", "cli");
    // Hold the owner's answer to "slow" until the caller has given up on it.
    const auto slow = std::find_if(script.begin(), script.end(), [](const fake::Step& s) {
        return s.kind == fake::Step::Expect && s.bytes[1] == static_cast<std::uint8_t>(ubus::MsgType::Invoke);
    });
    script.insert(slow + 1, fake::Step{fake::Step::Hold});
    fake::Broker broker(std::move(script));
    ubus::Connection bus;
    ASSERT_EQ(bus.connect(broker.path()), ubus::kOk);
    std::uint32_t id = 0;
    ASSERT_EQ(bus.lookup_id("demo", id), ubus::kOk);
    EXPECT_EQ(id, 0xeeb78ba2u);

    std::vector<std::string> replies;
    auto collect = [&](ubus::Bytes data) { replies.push_back(golden::hex(data)); };
    ubus::BlobBuf code;
    code.add_i32("code", 800);
    EXPECT_EQ(bus.invoke(id, "slow", code.members(), collect, 100), ubus::kTimeout);
    EXPECT_THAT(replies, IsEmpty());
    broker.release();  // now the late DATA and STATUS of seq 2 go out, before seq 3's replies

    ubus::BlobBuf hello;
    hello.add_i32("id", 7);
    EXPECT_EQ(bus.invoke(id, "hello", hello.members(), collect, 5000), ubus::kOk);
    EXPECT_THAT(
        replies,
        ElementsAre(data_hex(captured("session_timeout_late_reply.txt", "cli", ubus::MsgType::Data, 3))));
    EXPECT_THAT(broker.finish(), IsEmpty());
}

TEST(ClientGolden, OwnerCompletesADeferredCallLater) {
    fake::Broker broker(fake::script_of("session_timeout_late_reply.txt", "srv"));
    ubus::Connection bus;
    ASSERT_EQ(bus.connect(broker.path()), ubus::kOk);
    fake::Demo demo(bus);
    ASSERT_EQ(bus.add_object("demo", demo.type).status, ubus::kOk);
    while (!demo.slow && bus.dispatch(5000) == ubus::kOk) {
    }
    ASSERT_TRUE(demo.slow && *demo.slow);
    ubus::BlobBuf late;
    late.add_string("late", "yes");
    EXPECT_EQ(demo.slow->reply(late), ubus::kOk);
    EXPECT_EQ(demo.slow->complete(ubus::kOk), ubus::kOk);
    EXPECT_FALSE(*demo.slow);
    fake::pump(bus, broker);  // then "hello" (seq 3) is answered as usual
    EXPECT_THAT(broker.finish(), IsEmpty());
}

TEST(ClientGolden, EventListenerAndSender) {
    fake::Broker listener(fake::script_of("session_events.txt", "lis"));
    ubus::Connection lis;
    ASSERT_EQ(lis.connect(listener.path()), ubus::kOk);
    std::vector<std::string> events;
    const ubus::AddResult added = lis.listen("demo.*", [&](std::string_view type, ubus::Bytes data) {
        events.push_back(std::string(type) + " " + golden::hex(data));
    });
    EXPECT_EQ(added.status, ubus::kOk);
    EXPECT_EQ(added.id, 0xef6be49fu);
    fake::pump(lis, listener);
    EXPECT_THAT(listener.finish(), IsEmpty());
    EXPECT_THAT(events, ElementsAre("demo.started " + data_hex(captured("session_events.txt", "lis",
                                                                        ubus::MsgType::Invoke, 1))));

    fake::Broker broker(fake::script_of("session_events.txt", "snd"));
    ubus::Connection snd;
    ASSERT_EQ(snd.connect(broker.path()), ubus::kOk);
    ubus::BlobBuf data;
    data.add_string("name", "pkg1");
    data.add_bool("ok", true);
    data.add_i32("n", 3);
    EXPECT_EQ(snd.send_event("demo.started", data.members()), ubus::kOk);
    EXPECT_THAT(broker.finish(), IsEmpty());
}

TEST(ClientGolden, OwnerNotifiesSubscribersAndLearnsAboutThem) {
    fake::Broker broker(fake::script_of("session_subscribe_notify.txt", "srv"));
    ubus::Loop loop;
    ubus::Connection bus;
    ASSERT_EQ(bus.connect(broker.path()), ubus::kOk);
    bus.attach(loop);
    fake::Demo demo(bus);
    std::vector<bool> active;
    const ubus::AddResult added = bus.add_object("demo", demo.type, [&](bool on) { active.push_back(on); });
    ASSERT_EQ(added.status, ubus::kOk);
    // The notification with replies waits for the broker and the one subscriber; the one without
    // replies sends NO_REPLY and does not wait.
    fake::pump(loop, broker);
    EXPECT_THAT(broker.finish(), IsEmpty());
    EXPECT_THAT(active, ElementsAre(true, false));
    EXPECT_FALSE(bus.has_subscribers(added.id));
}

TEST(ClientGolden, SubscriberAnswersNotificationsUnlessTheyWantNoReply) {
    fake::Broker broker(fake::script_of("session_subscribe_notify.txt", "sub"));
    ubus::Connection bus;
    ASSERT_EQ(bus.connect(broker.path()), ubus::kOk);
    std::vector<std::string> seen;
    const ubus::AddResult sub = bus.add_subscriber([&](ubus::Request& req) {
        seen.push_back(std::string(req.method()) + " " + golden::hex(req.args()));
        return ubus::kOk;
    });
    ASSERT_EQ(sub.status, ubus::kOk);
    std::uint32_t target = 0;
    ASSERT_EQ(bus.lookup_id("demo", target), ubus::kOk);
    ASSERT_EQ(bus.subscribe(sub.id, target), ubus::kOk);
    while (seen.size() < 2 && bus.dispatch(5000) == ubus::kOk) {
    }
    // A STATUS sent for the NO_REPLY notification would arrive where UNSUBSCRIBE is expected.
    EXPECT_EQ(bus.unsubscribe(sub.id, target), ubus::kOk);
    const std::string what =
        data_hex(captured("session_subscribe_notify.txt", "sub", ubus::MsgType::Invoke, 2));
    EXPECT_THAT(seen, ElementsAre("changed " + what, "changed " + what));
    EXPECT_THAT(broker.finish(), IsEmpty());
}

TEST(ClientGolden, ObjectTypeIsDescribedOnceAndForgottenWhenReleased) {
    auto script = fake::script_of("session_add_remove_objects.txt", "obj");
    script.erase(script.end() - 2, script.end());  // removing an unknown id is refused without asking
    // Once the broker released the type, the next object of that type describes it again.
    auto again = script[1].bytes;
    again[3] = 6;  // seq
    script.push_back({fake::Step::Expect, again});
    script.push_back({fake::Step::Send, fake::msg(ubus::MsgType::Status, 6, 0, [](ubus::MsgBuf& m) {
                          m.put_u32(ubus::kAttrStatus, ubus::kInvalidArgument);
                      })});
    fake::Broker broker(std::move(script));
    ubus::Connection bus;
    ASSERT_EQ(bus.connect(broker.path()), ubus::kOk);
    static constexpr ubus::Policy kArgs[] = {{"a", ubus::Type::String}};
    const auto type = ubus::ObjectType::make({{"m", kArgs, [](ubus::Request&) { return 0; }}});

    const ubus::AddResult one = bus.add_object("tmp.one", type);
    const ubus::AddResult two = bus.add_object("tmp.two", type);
    EXPECT_EQ(one.id, 0xa980bb10u);
    EXPECT_EQ(two.id, 0x11d46ba5u);
    EXPECT_EQ(bus.add_object("tmp.two", type).status, ubus::kInvalidArgument);
    EXPECT_EQ(bus.remove_object(one.id), ubus::kOk);
    EXPECT_EQ(bus.remove_object(two.id), ubus::kOk);
    EXPECT_EQ(bus.remove_object(two.id), ubus::kNotFound);
    EXPECT_EQ(bus.add_object("tmp.one", type).status, ubus::kInvalidArgument);
    EXPECT_THAT(broker.finish(), IsEmpty());
}

TEST(ClientGolden, DescriptorsTravelWithTheCallAndTheFinalStatus) {
    {  // caller: passes a pipe with its call, receives the owner's with the final STATUS
        fake::Broker broker(fake::script_of("session_fd_passing.txt", "cli"));
        ubus::Connection bus;
        ASSERT_EQ(bus.connect(broker.path()), ubus::kOk);
        std::uint32_t id = 0;
        ASSERT_EQ(bus.lookup_id("demo", id), ubus::kOk);
        int p[2];
        ASSERT_EQ(::pipe(p), 0);
        ubus::UniqueFd rd(p[0]);
        ASSERT_EQ(::write(p[1], "from-caller", 11), 11);
        ::close(p[1]);
        ubus::UniqueFd reply;
        std::vector<std::string> replies;
        EXPECT_EQ(bus.invoke(id, "fd", {}, [&](ubus::Bytes d) { replies.push_back(golden::hex(d)); }, 5000,
                             {rd.get(), &reply}),
                  ubus::kOk);
        EXPECT_THAT(replies,
                    ElementsAre(data_hex(captured("session_fd_passing.txt", "cli", ubus::MsgType::Data, 2))));
        ASSERT_TRUE(reply);
        char buf[16] = {};
        EXPECT_EQ(::read(reply.get(), buf, sizeof buf), 10);
        EXPECT_STREQ(buf, "from-owner");
        EXPECT_THAT(broker.finish(), IsEmpty());
        EXPECT_THAT(broker.fd_texts, ElementsAre("from-caller"));
    }
    {  // owner: reads the caller's pipe (its text comes back in the DATA) and attaches its own
        fake::Broker broker(fake::script_of("session_fd_passing.txt", "srv"), "from-caller");
        ubus::Connection bus;
        ASSERT_EQ(bus.connect(broker.path()), ubus::kOk);
        fake::Demo demo(bus);
        ASSERT_EQ(bus.add_object("demo", demo.type).status, ubus::kOk);
        fake::pump(bus, broker);
        EXPECT_THAT(broker.finish(), IsEmpty());
        EXPECT_THAT(broker.fd_texts, ElementsAre("from-owner"));
    }
}

}  // namespace

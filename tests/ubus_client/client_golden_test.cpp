// The client library against captured reference traffic: a fake broker plays the broker's side of
// a capture and checks every message the client sends, byte for byte.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>

#include "demo_object.hpp"
#include "fake_broker.hpp"
#include "golden_session.hpp"
#include "pipe_text.hpp"
#include "ubus/loop.hpp"

namespace {

using fake::script_of;
using fake::Session;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

// The DATA members of the first message of `type` and `seq` the broker sent to `label`, as hex.
std::string captured_data(std::string_view file, std::string_view label, ubus::MsgType type,
                          std::uint16_t seq) {
    for (const golden::Step& s : golden::read_session(file)) {
        if (s.kind != golden::Step::FromBroker || s.label != label) continue;
        const ubus::MsgHeader h = ubus::decode_header(s.bytes.data());
        if (h.type == type && h.seq == seq)
            return golden::hex(ubus::MsgAttrs(ubus::Bytes(s.bytes).subspan(12)).data());
    }
    return "(not in the capture)";
}

// Collects each DATA reply of a call as hex.
struct Replies {
    std::vector<std::string> hex;
    auto collector() {
        return [this](ubus::Bytes data) { hex.push_back(golden::hex(data)); };
    }
};

TEST(ClientGolden, CallerLooksUpInvokesAndCollectsEachReply) {
    Session s(script_of("session_call_with_data.txt", "cli"));
    EXPECT_EQ(s.bus.client_id(), 0xf5a14626u);
    std::vector<ubus::ObjectInfo> found;
    ASSERT_EQ(s.bus.lookup("demo", [&](const ubus::ObjectInfo& o) { found.push_back(o); }), ubus::kOk);
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].id, 0x9a1af886u);
    EXPECT_EQ(found[0].type, 0x4403977eu);
    const bus_test::Demo demo(s.bus);  // the owner's type: same signature as the one looked up
    EXPECT_EQ(golden::hex(found[0].signature), golden::hex(demo.type->signature()));

    ubus::BlobBuf args;
    args.add_i32("id", 42);
    args.add_string("msg", "hi there");
    Replies r;
    EXPECT_EQ(s.bus.invoke(found[0].id, "hello", args.members(), r.collector(), 5000), ubus::kOk);
    EXPECT_THAT(r.hex,
                ElementsAre(captured_data("session_call_with_data.txt", "cli", ubus::MsgType::Data, 2)));
    EXPECT_THAT(s.broker.finish(), IsEmpty());
}

// The owner side of these captures: registration, then the calls the broker forwards, answered
// by the demo object (a descriptor passed to it holds "from-caller").
class ClientGoldenOwner : public ::testing::TestWithParam<const char*> {};

TEST_P(ClientGoldenOwner, RegistersAndAnswersLikeTheCapturedOwner) {
    ubus::Loop loop;  // outlives the connection attached to it
    Session s(script_of(GetParam(), "srv"), "from-caller");
    s.bus.attach(loop);
    bus_test::Demo demo(s.bus);
    std::vector<bool> active;
    const ubus::AddResult added = s.bus.add_object("demo", demo.type, [&](bool on) { active.push_back(on); });
    ASSERT_EQ(added.status, ubus::kOk);
    fake::run_until(loop, [&] {
        if (demo.slow && *demo.slow) {  // the deferred call is completed once the caller gave up
            ubus::BlobBuf late;
            late.add_string("late", "yes");
            EXPECT_EQ(demo.slow->reply(late), ubus::kOk);
            EXPECT_EQ(demo.slow->complete(ubus::kOk), ubus::kOk);
        }
        return s.broker.done();
    });
    EXPECT_THAT(s.broker.finish(), IsEmpty());
    // What else each capture shows the owner: who called, whether anyone watched, what it was passed.
    const std::string file = GetParam();
    EXPECT_THAT(demo.callers, Each(std::string("root/root")));
    EXPECT_EQ(active, (file == "session_subscribe_notify.txt" ? std::vector<bool>{true, false}
                                                              : std::vector<bool>{}));
    EXPECT_FALSE(s.bus.has_subscribers(added.id));
    EXPECT_EQ(s.broker.fd_texts, (file == "session_fd_passing.txt" ? std::vector<std::string>{"from-owner"}
                                                                   : std::vector<std::string>{}));
}

INSTANTIATE_TEST_SUITE_P(Captures, ClientGoldenOwner,
                         ::testing::Values("invoke_owner_side.txt", "session_timeout_late_reply.txt",
                                           "session_subscribe_notify.txt", "session_fd_passing.txt"));

TEST(ClientGolden, ReplyArrivingAfterTheTimeoutNeverReachesTheNextCall) {
    auto script = script_of("session_timeout_late_reply.txt", "cli");
    // Hold the owner's answer to "slow" until the caller has given up on it.
    const auto slow = std::find_if(script.begin(), script.end(), [](const fake::Step& st) {
        return st.kind == fake::Step::Expect &&
               st.bytes[1] == static_cast<std::uint8_t>(ubus::MsgType::Invoke);
    });
    script.insert(slow + 1, fake::Step{fake::Step::Hold});
    Session s(std::move(script));
    std::uint32_t id = 0;
    ASSERT_EQ(s.bus.lookup_id("demo", id), ubus::kOk);
    EXPECT_EQ(id, 0xeeb78ba2u);

    Replies r;
    ubus::BlobBuf code, hello;
    code.add_i32("code", 800);
    hello.add_i32("id", 7);
    EXPECT_EQ(s.bus.invoke(id, "slow", code.members(), r.collector(), 100), ubus::kTimeout);
    EXPECT_THAT(r.hex, IsEmpty());
    s.broker.release();  // now the late DATA and STATUS of seq 2 go out, before seq 3's replies
    EXPECT_EQ(s.bus.invoke(id, "hello", hello.members(), r.collector(), 5000), ubus::kOk);
    EXPECT_THAT(r.hex,
                ElementsAre(captured_data("session_timeout_late_reply.txt", "cli", ubus::MsgType::Data, 3)));
    EXPECT_THAT(s.broker.finish(), IsEmpty());
}

TEST(ClientGolden, EventListenerAndSender) {
    Session lis(script_of("session_events.txt", "lis"));
    std::vector<std::string> events;
    const ubus::AddResult added = lis.bus.listen("demo.*", [&](std::string_view type, ubus::Bytes data) {
        events.push_back(std::string(type) + " " + golden::hex(data));
    });
    EXPECT_EQ(added.status, ubus::kOk);
    EXPECT_EQ(added.id, 0xef6be49fu);
    fake::pump(lis.bus, lis.broker);
    EXPECT_THAT(lis.broker.finish(), IsEmpty());
    EXPECT_THAT(events, ElementsAre("demo.started " +
                                    captured_data("session_events.txt", "lis", ubus::MsgType::Invoke, 1)));

    Session snd(script_of("session_events.txt", "snd"));
    ubus::BlobBuf data;
    data.add_string("name", "pkg1");
    data.add_bool("ok", true);
    data.add_i32("n", 3);
    EXPECT_EQ(snd.bus.send_event("demo.started", data.members()), ubus::kOk);
    EXPECT_THAT(snd.broker.finish(), IsEmpty());
}

TEST(ClientGolden, SubscriberAnswersNotificationsUnlessTheyWantNoReply) {
    Session s(script_of("session_subscribe_notify.txt", "sub"));
    std::vector<std::string> seen;
    const ubus::AddResult sub = s.bus.add_subscriber([&](ubus::Request& req) {
        seen.push_back(std::string(req.method()) + " " + golden::hex(req.args()));
        return ubus::kOk;
    });
    ASSERT_EQ(sub.status, ubus::kOk);
    std::uint32_t target = 0;
    ASSERT_EQ(s.bus.lookup_id("demo", target), ubus::kOk);
    ASSERT_EQ(s.bus.subscribe(sub.id, target), ubus::kOk);
    while (seen.size() < 2 && s.bus.dispatch(5000) == ubus::kOk) {
    }
    // A STATUS sent for the NO_REPLY notification would arrive where UNSUBSCRIBE is expected.
    EXPECT_EQ(s.bus.unsubscribe(sub.id, target), ubus::kOk);
    const std::string what = captured_data("session_subscribe_notify.txt", "sub", ubus::MsgType::Invoke, 2);
    EXPECT_THAT(seen, ElementsAre("changed " + what, "changed " + what));
    EXPECT_THAT(s.broker.finish(), IsEmpty());
}

TEST(ClientGolden, ObjectTypeIsDescribedOnceAndForgottenWhenReleased) {
    auto script = script_of("session_add_remove_objects.txt", "obj");
    script.erase(script.end() - 2, script.end());  // removing an unknown id is refused without asking
    // Once the broker released the type, the next object of that type describes it again.
    auto again = script[1].bytes;
    again[3] = 6;  // seq
    script.push_back({fake::Step::Expect, again});
    script.push_back({fake::Step::Send, fake::msg(ubus::MsgType::Status, 6, 0, [](ubus::MsgBuf& m) {
                          m.put_u32(ubus::kAttrStatus, ubus::kInvalidArgument);
                      })});
    Session s(std::move(script));
    static constexpr ubus::Policy kArgs[] = {{"a", ubus::Type::String}};
    const auto type = ubus::ObjectType::make({{"m", kArgs, [](ubus::Request&) { return 0; }}});

    const ubus::AddResult one = s.bus.add_object("tmp.one", type), two = s.bus.add_object("tmp.two", type);
    EXPECT_EQ(one.id, 0xa980bb10u);
    EXPECT_EQ(two.id, 0x11d46ba5u);
    EXPECT_EQ(s.bus.add_object("tmp.two", type).status, ubus::kInvalidArgument);
    EXPECT_EQ(s.bus.remove_object(one.id), ubus::kOk);
    EXPECT_EQ(s.bus.remove_object(two.id), ubus::kOk);
    EXPECT_EQ(s.bus.remove_object(two.id), ubus::kNotFound);
    EXPECT_EQ(s.bus.add_object("tmp.one", type).status, ubus::kInvalidArgument);
    EXPECT_THAT(s.broker.finish(), IsEmpty());
}

TEST(ClientGolden, CallerPassesADescriptorAndReceivesTheOwners) {
    Session s(script_of("session_fd_passing.txt", "cli"));
    std::uint32_t id = 0;
    ASSERT_EQ(s.bus.lookup_id("demo", id), ubus::kOk);
    const ubus::UniqueFd mine = bus_test::pipe_holding("from-caller");
    ubus::UniqueFd theirs;
    Replies r;
    EXPECT_EQ(s.bus.invoke(id, "fd", {}, r.collector(), 5000, {mine.get(), &theirs}), ubus::kOk);
    EXPECT_THAT(r.hex, ElementsAre(captured_data("session_fd_passing.txt", "cli", ubus::MsgType::Data, 2)));
    ASSERT_TRUE(theirs);
    EXPECT_EQ(bus_test::read_all(theirs.get()), "from-owner");
    EXPECT_THAT(s.broker.finish(), IsEmpty());
    EXPECT_THAT(s.broker.fd_texts, ElementsAre("from-caller"));
}

}  // namespace

// How the client matches replies, waits for subscribers, survives a broker that goes away and a
// fork, and answers calls it cannot serve, against a scripted fake broker.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>

#include "fake_broker.hpp"
#include "golden_session.hpp"
#include "ubus/json.hpp"
#include "ubus/loop.hpp"

namespace {

using fake::Steps;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ubus::MsgBuf;
using ubus::MsgType;

constexpr std::uint32_t kClient = 0x1000, kObject = 0x2000, kOther = 0x3000, kCaller = 0x4000;

fake::Step send(std::vector<std::uint8_t> m) {
    return {fake::Step::Send, std::move(m)};
}
fake::Step expect(std::vector<std::uint8_t> m) {
    return {fake::Step::Expect, std::move(m)};
}

// A call of `method` on `object`, as the caller or the broker writes it (without DATA if the
// caller left it out: the broker passes on what it got).
std::vector<std::uint8_t> call(std::uint16_t seq, std::uint32_t peer, std::uint32_t object,
                               std::string_view method, bool with_data = true) {
    return fake::msg(MsgType::Invoke, seq, peer, [&](MsgBuf& m) {
        m.put_u32(ubus::kAttrObjId, object);
        m.put_string(ubus::kAttrMethod, method);
        if (with_data) m.put_raw(ubus::kAttrData, {});
    });
}
std::vector<std::uint8_t> status(std::uint16_t seq, std::uint32_t peer, int code, std::uint32_t object) {
    return fake::msg(MsgType::Status, seq, peer, [&](MsgBuf& m) {
        m.put_u32(ubus::kAttrStatus, static_cast<std::uint32_t>(code));
        m.put_u32(ubus::kAttrObjId, object);
    });
}
std::vector<std::uint8_t> data(std::uint16_t seq, std::uint32_t peer, std::uint32_t object,
                               std::string_view json) {
    return fake::msg(MsgType::Data, seq, peer, [&](MsgBuf& m) {
        m.put_u32(ubus::kAttrObjId, object);
        ubus::BlobBuf members;
        ubus::json_load(members, json);
        m.put_data(members);
    });
}

const fake::Step kHello = send(fake::msg(MsgType::Hello, 0, kClient));

// The registration of one object as request `seq` (anonymous when `add` is empty): object kObject.
Steps registered(std::uint16_t seq, std::vector<std::uint8_t> add = {}) {
    return {expect(add.empty() ? fake::msg(MsgType::AddObject, seq, 0) : add),
            send(fake::msg(MsgType::Data, seq, 0, [](MsgBuf& m) { m.put_u32(ubus::kAttrObjId, kObject); })),
            send(fake::msg(MsgType::Status, seq, 0, [](MsgBuf& m) { m.put_u32(ubus::kAttrStatus, 0); }))};
}

TEST(ClientWaits, RepliesAreMatchedBySeqAndPeerAndOtherTrafficWaits) {
    const auto copy = fake::msg(MsgType::Monitor, 1, 0, [](MsgBuf& m) { m.put_u32(0, kCaller); });
    fake::Session s({kHello, expect(call(1, kOther, kOther, "m")), send(copy),
                     send(data(1, 0, kOther, R"({"n":1})")), send(data(2, kOther, kOther, R"({"n":2})")),
                     send(data(1, kOther, kOther, R"({"n":3})")),
                     // a STATUS without a status value counts as "invalid argument"
                     send(fake::msg(MsgType::Status, 1, kOther))});
    std::vector<std::string> monitored, got;
    s.bus.on_monitor([&](ubus::Bytes attrs) { monitored.push_back(golden::hex(attrs)); });
    EXPECT_EQ(s.bus.invoke(
                  kOther, "m", {},
                  [&](ubus::Bytes d) { ubus::json_format_list(got.emplace_back(), d, false); }, 5000),
              ubus::kInvalidArgument);
    EXPECT_THAT(got, ElementsAre(R"({"n":3})"));
    EXPECT_THAT(monitored, IsEmpty());  // not inside the call: at the next dispatch
    s.bus.dispatch(0);
    EXPECT_THAT(monitored, ElementsAre(golden::hex(ubus::Bytes(copy).subspan(12))));
    EXPECT_THAT(s.broker.finish(), IsEmpty());
}

TEST(ClientWaits, NotificationWaitsForEverySubscriberTheBrokerNamed) {
    auto notify = [](std::uint16_t seq) {
        return fake::msg(MsgType::Notify, seq, kObject, [](MsgBuf& m) {
            m.put_u32(ubus::kAttrObjId, kObject);
            m.put_string(ubus::kAttrMethod, "x");
            m.put_raw(ubus::kAttrData, {});
        });
    };
    auto subscribers = [](std::uint16_t seq) {
        return fake::msg(MsgType::Status, seq, kObject, [&](MsgBuf& m) {
            m.put_u32(ubus::kAttrObjId, kObject);
            const auto list = m.nest_open(ubus::kAttrSubscribers);
            m.put_u32(0, kOther);
            m.put_u32(0, kOther + 1);
            m.close(list);
            m.put_u32(ubus::kAttrStatus, 0);
        });
    };
    fake::Session s({kHello, expect(notify(1)), send(subscribers(1)), send(status(1, kOther, 0, kOther)),
                     expect(notify(2)), send(subscribers(2)), send(status(2, kOther + 1, 0, kOther + 1)),
                     send(status(2, kOther, 0, kOther))});
    EXPECT_EQ(s.bus.notify(kObject, "x", {}, 200), ubus::kTimeout);  // the second subscriber never answers
    EXPECT_EQ(s.bus.notify(kObject, "x", {}, 5000), ubus::kOk);
    EXPECT_THAT(s.broker.finish(), IsEmpty());
}

class ClientLostBroker : public ::testing::TestWithParam<bool> {};

TEST_P(ClientLostBroker, WaitingCallFailsAndTheOwnerIsToldOnce) {
    const bool garbage = GetParam();  // a header announcing an oversized body, or a plain close
    std::vector<std::uint8_t> bad = fake::msg(MsgType::Data, 1, kOther);
    bad[9] = 0x10;    // body length 1 MiB + 4
    ubus::Loop loop;  // outlives the connection attached to it
    fake::Session s(
        {kHello, expect(call(1, kOther, kOther, "m")), garbage ? send(bad) : fake::Step{fake::Step::Close}});
    int told = 0;
    s.bus.on_disconnect([&] { ++told; });
    if (garbage) s.bus.attach(loop);
    EXPECT_EQ(s.bus.invoke(kOther, "m", {}, {}, 5000), ubus::kConnectionFailed);
    EXPECT_EQ(told, 0);  // never from inside the call
    if (garbage)
        fake::run_until(loop, [&] { return told > 0; });
    else
        EXPECT_EQ(s.bus.dispatch(0), ubus::kConnectionFailed);
    EXPECT_EQ(s.bus.dispatch(0), ubus::kConnectionFailed);
    EXPECT_EQ(told, 1);
    EXPECT_FALSE(s.bus.connected());
    EXPECT_EQ(s.bus.send_event("x", {}), ubus::kConnectionFailed);
    EXPECT_THAT(s.broker.finish(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(CloseOrGarbage, ClientLostBroker, ::testing::Bool());

TEST(ClientFork, ChildNeitherReadsNorWritesTheInheritedConnection) {
    fake::Broker broker(Steps{kHello} + registered(1) +
                        Steps{send(call(3, kCaller, kObject, "later")),
                              {fake::Step::Hold},
                              send(call(4, kCaller + 1, kObject, "now")),
                              expect(status(4, kCaller + 1, 0, kObject)),
                              expect(status(3, kCaller, 0, kObject))});
    ubus::Loop loop;
    std::optional<ubus::Connection> bus(std::in_place);
    ASSERT_EQ(bus->connect(broker.path()), ubus::kOk);
    bus->attach(loop);
    std::optional<ubus::DeferredReply> later;
    bool now = false;
    ASSERT_EQ(bus->add_anonymous_object([&](ubus::Request& req) {
                     if (req.method() == "later") later = req.defer();
                     now = now || req.method() == "now";
                     return ubus::kOk;
                 })
                  .status,
              ubus::kOk);
    fake::run_until(loop, [&] { return later.has_value(); });
    ASSERT_TRUE(later);
    broker.release();  // "now" is on its way while the child runs

    const int child = bus_test::run_forked([&] {
        int wrong = 0;
        if (bus->dispatch(2000) != ubus::kConnectionFailed) wrong |= 1;  // would steal "now"
        if (bus->invoke(kOther, "m", {}, {}, 100) != ubus::kConnectionFailed) wrong |= 2;
        later.reset();  // would answer "later" with an error
        bus.reset();    // would unregister the parent's socket from the shared epoll set
        return wrong;
    });
    EXPECT_EQ(child, 0);
    fake::run_until(loop, [&] { return now; });
    EXPECT_TRUE(now);
    EXPECT_EQ(later->complete(ubus::kOk), ubus::kOk);
    EXPECT_THAT(broker.finish(), IsEmpty());
}

TEST(ClientOwner, CallsItCannotServeGetTheirStatusWithTheRealSeqAndPeer) {
    static constexpr ubus::Policy kArgs[] = {{"n", ubus::Type::Int32}};
    const auto type = ubus::ObjectType::make({{"m", kArgs,
                                               [](ubus::Request& req) {
                                                   ubus::BlobBuf out;
                                                   out.add_string("path", req.path());
                                                   req.reply(out);
                                                   return ubus::kNoData;
                                               }},
                                              {"drop", {}, [](ubus::Request& req) {
                                                   req.defer();  // dropped at once: answers "unknown error"
                                                   return ubus::kOk;
                                               }}});
    auto no_reply = [](std::vector<std::uint8_t> m) {  // NO_REPLY first, as the broker puts it
        return fake::msg(MsgType::Invoke, ubus::wire::get16(&m[2]), kCaller, [&](MsgBuf& b) {
            b.put_u8(ubus::kAttrNoReply, 1);
            b.add_members(ubus::Bytes(m).subspan(12));
        });
    };
    const auto path_reply = [](std::uint16_t seq) {
        return expect(data(seq, kCaller, kObject, R"({"path":"obj"})"));
    };
    fake::Session s(
        Steps{kHello} +
        registered(1, fake::msg(MsgType::AddObject, 1, 0,
                                [&](MsgBuf& m) {
                                    m.put_string(ubus::kAttrObjPath, "obj");
                                    m.put_raw(ubus::kAttrSignature, type->signature());
                                })) +
        Steps{send(call(4, kCaller, 0xdead, "m")),  // an object removed while the call was on its way
              expect(status(4, kCaller, ubus::kNotFound, 0xdead)),
              send(call(6, kCaller, kObject, "m", false)),
              expect(status(6, kCaller, ubus::kInvalidArgument, kObject)),
              send(no_reply(call(7, kCaller, kObject, "nosuch"))),            // no reply wanted: nothing
              send(no_reply(call(8, kCaller, kObject, "m"))), path_reply(8),  // DATA still goes out
              send(call(9, kCaller, kObject, "drop")),
              expect(status(9, kCaller, ubus::kUnknownError, kObject)), send(call(10, kCaller, kObject, "m")),
              path_reply(10), expect(status(10, kCaller, ubus::kNoData, kObject))});
    ASSERT_EQ(s.bus.add_object("obj", type).status, ubus::kOk);
    fake::pump(s.bus, s.broker);
    EXPECT_THAT(s.broker.finish(), IsEmpty());
}

}  // namespace

// How the client behaves around synchronous waits, forks, a broker that goes away, size limits
// and calls it must refuse, against a scripted fake broker.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <optional>

#include "fake_broker.hpp"
#include "golden_session.hpp"
#include "ubus/loop.hpp"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ubus::MsgBuf;
using ubus::MsgType;
using Steps = std::vector<fake::Step>;

constexpr std::uint32_t kClient = 0x1000, kObject = 0x2000, kOther = 0x3000, kCaller = 0x4000;

fake::Step send(std::vector<std::uint8_t> m) {
    return {fake::Step::Send, std::move(m)};
}
fake::Step expect(std::vector<std::uint8_t> m) {
    return {fake::Step::Expect, std::move(m)};
}

// A call of `method` on `object` (empty DATA), as the caller or the broker writes it.
std::vector<std::uint8_t> call(std::uint16_t seq, std::uint32_t peer, std::uint32_t object,
                               std::string_view method) {
    return fake::msg(MsgType::Invoke, seq, peer, [&](MsgBuf& m) {
        m.put_u32(ubus::kAttrObjId, object);
        m.put_string(ubus::kAttrMethod, method);
        m.put_raw(ubus::kAttrData, {});
    });
}
std::vector<std::uint8_t> status(std::uint16_t seq, std::uint32_t peer, int code, std::uint32_t object) {
    return fake::msg(MsgType::Status, seq, peer, [&](MsgBuf& m) {
        m.put_u32(ubus::kAttrStatus, static_cast<std::uint32_t>(code));
        m.put_u32(ubus::kAttrObjId, object);
    });
}

Steps operator+(Steps a, const Steps& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

fake::Step hello() {
    return send(fake::msg(MsgType::Hello, 0, kClient));
}

// The broker's answer to registration request `seq`: object kObject.
Steps registered(std::uint16_t seq) {
    return {send(fake::msg(MsgType::Data, seq, 0, [](MsgBuf& m) { m.put_u32(ubus::kAttrObjId, kObject); })),
            send(fake::msg(MsgType::Status, seq, 0, [](MsgBuf& m) { m.put_u32(ubus::kAttrStatus, 0); }))};
}

// Greeting, then the registration of one anonymous object as request 1.
Steps greeting_and_object() {
    return Steps{hello(), expect(fake::msg(MsgType::AddObject, 1, 0))} + registered(1);
}

TEST(ClientWaits, CallArrivingDuringAHandlersSynchronousCallRunsAfterIt) {
    fake::Broker broker(greeting_and_object() + Steps{{fake::Step::Hold},
                                                      send(call(5, kCaller, kObject, "outer")),
                                                      expect(call(2, kOther, kOther, "ask")),
                                                      send(call(9, kCaller + 1, kObject, "second")),
                                                      send(status(2, kOther, 0, kOther)),
                                                      expect(status(5, kCaller, 0, kObject)),
                                                      expect(status(9, kCaller + 1, 0, kObject))});
    ubus::Loop loop;
    ubus::Connection bus;
    ASSERT_EQ(bus.connect(broker.path()), ubus::kOk);
    bus.attach(loop);
    std::vector<std::string> log;
    ASSERT_EQ(bus.add_anonymous_object([&](ubus::Request& req) {
                     // The request must still be intact after the nested wait read more messages.
                     const int asked = req.method() == "outer" ? bus.invoke(kOther, "ask", {}, {}, 5000) : -1;
                     log.push_back(std::string(req.method()) + " " + std::to_string(asked));
                     return ubus::kOk;
                 })
                  .status,
              ubus::kOk);
    broker.release();  // the call comes when nothing waits, and is handled straight from the socket
    fake::pump(loop, broker);
    EXPECT_THAT(broker.finish(), IsEmpty());
    EXPECT_THAT(log, ElementsAre("outer 0", "second -1"));
}

TEST(ClientWaits, RepliesAreMatchedBySeqAndPeerAndOtherTrafficWaits) {
    auto data = [](std::uint16_t seq, std::uint32_t peer, std::int32_t n) {
        return fake::msg(MsgType::Data, seq, peer, [&](MsgBuf& m) {
            m.put_u32(ubus::kAttrObjId, kOther);
            const auto d = m.nest_open(ubus::kAttrData);
            m.add_i32("n", n);
            m.close(d);
        });
    };
    const auto copy = fake::msg(MsgType::Monitor, 1, 0, [](MsgBuf& m) { m.put_u32(0, kCaller); });
    fake::Broker broker({hello(), expect(call(1, kOther, kOther, "m")), send(copy), send(data(1, 0, 1)),
                         send(data(2, kOther, 2)), send(data(1, kOther, 3)),
                         // a STATUS without a status value counts as "invalid argument"
                         send(fake::msg(MsgType::Status, 1, kOther))});
    ubus::Connection bus;
    ASSERT_EQ(bus.connect(broker.path()), ubus::kOk);
    std::vector<std::string> monitored;
    bus.on_monitor([&](ubus::Bytes attrs) { monitored.push_back(golden::hex(attrs)); });
    static constexpr ubus::Policy kN[] = {{"n", ubus::Type::Int32}};
    std::vector<std::int32_t> got;
    EXPECT_EQ(
        bus.invoke(
            kOther, "m", {}, [&](ubus::Bytes d) { got.push_back(ubus::parse(kN, d)[0].as_i32()); }, 5000),
        ubus::kInvalidArgument);
    EXPECT_THAT(got, ElementsAre(3));
    EXPECT_THAT(monitored, IsEmpty());  // not inside the call: at the next dispatch
    bus.dispatch(0);
    EXPECT_THAT(monitored, ElementsAre(golden::hex(ubus::Bytes(copy).subspan(12))));
    EXPECT_THAT(broker.finish(), IsEmpty());
}

TEST(ClientWaits, NotificationWaitsForEverySubscriberTheBrokerNamed) {
    auto notify = [](std::uint16_t seq) {
        return fake::msg(MsgType::Notify, seq, kObject, [](MsgBuf& m) {
            m.put_u32(ubus::kAttrObjId, kObject);
            m.put_string(ubus::kAttrMethod, "x");
            m.put_raw(ubus::kAttrData, {});
        });
    };
    auto subscribers = [](std::uint16_t seq, std::vector<std::uint32_t> ids) {
        return fake::msg(MsgType::Status, seq, kObject, [&](MsgBuf& m) {
            m.put_u32(ubus::kAttrObjId, kObject);
            const auto list = m.nest_open(ubus::kAttrSubscribers);
            for (std::uint32_t id : ids) m.put_u32(0, id);
            m.close(list);
            m.put_u32(ubus::kAttrStatus, 0);
        });
    };
    fake::Broker broker({hello(), expect(notify(1)), send(subscribers(1, {kOther, kOther + 1})),
                         send(status(1, kOther, 0, kOther)), expect(notify(2)),
                         send(subscribers(2, {kOther, kOther + 1})),
                         send(status(2, kOther + 1, 0, kOther + 1)), send(status(2, kOther, 0, kOther))});
    ubus::Connection bus;
    ASSERT_EQ(bus.connect(broker.path()), ubus::kOk);
    EXPECT_EQ(bus.notify(kObject, "x", {}, 200), ubus::kTimeout);  // the second subscriber never answers
    EXPECT_EQ(bus.notify(kObject, "x", {}, 5000), ubus::kOk);
    EXPECT_THAT(broker.finish(), IsEmpty());
}

class ClientLostBroker : public ::testing::TestWithParam<bool> {};

TEST_P(ClientLostBroker, WaitingCallFailsAndTheOwnerIsToldOnce) {
    const bool garbage = GetParam();  // a header announcing an oversized body, or a plain close
    std::vector<std::uint8_t> bad = fake::msg(MsgType::Data, 1, kOther);
    bad[9] = 0x10;  // body length 1 MiB + 4
    fake::Broker broker(
        {hello(), expect(call(1, kOther, kOther, "m")), garbage ? send(bad) : fake::Step{fake::Step::Close}});
    ubus::Loop loop;
    ubus::Connection bus;
    ASSERT_EQ(bus.connect(broker.path()), ubus::kOk);
    int told = 0;
    bus.on_disconnect([&] { ++told; });
    if (garbage) bus.attach(loop);
    EXPECT_EQ(bus.invoke(kOther, "m", {}, {}, 5000), ubus::kConnectionFailed);
    EXPECT_EQ(told, 0);  // never from inside the call
    if (garbage)
        fake::run_until(loop, [&] { return told > 0; });
    else
        EXPECT_EQ(bus.dispatch(0), ubus::kConnectionFailed);
    EXPECT_EQ(bus.dispatch(0), ubus::kConnectionFailed);
    EXPECT_EQ(told, 1);
    EXPECT_FALSE(bus.connected());
    EXPECT_EQ(bus.send_event("x", {}), ubus::kConnectionFailed);
    EXPECT_THAT(broker.finish(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(CloseOrGarbage, ClientLostBroker, ::testing::Bool());

TEST(ClientFork, ChildNeitherReadsNorWritesTheInheritedConnection) {
    fake::Broker broker(greeting_and_object() + Steps{send(call(3, kCaller, kObject, "later")),
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

    const pid_t pid = ::fork();
    if (pid == 0) {
        int wrong = 0;
        if (bus->dispatch(2000) != ubus::kConnectionFailed) wrong |= 1;  // would steal "now"
        if (bus->invoke(kOther, "m", {}, {}, 100) != ubus::kConnectionFailed) wrong |= 2;
        later.reset();  // would answer "later" with an error
        bus.reset();    // would unregister the parent's socket from the shared epoll set
        ::_exit(wrong);
    }
    int wstatus = 0;
    ASSERT_EQ(::waitpid(pid, &wstatus, 0), pid);
    EXPECT_TRUE(WIFEXITED(wstatus));
    EXPECT_EQ(WEXITSTATUS(wstatus), 0);
    fake::run_until(loop, [&] { return now; });
    EXPECT_TRUE(now);
    EXPECT_EQ(later->complete(ubus::kOk), ubus::kOk);
    EXPECT_THAT(broker.finish(), IsEmpty());
}

// Members holding one string of `n` bytes; with the call's other attributes, n = kFits makes a
// body of exactly the largest size allowed.
constexpr std::size_t kFits = ubus::kMaxBodyLen - 33;
ubus::BlobBuf big(std::size_t n) {
    ubus::BlobBuf b;
    b.add_string("s", std::string(n, 'x'));
    return b;
}

TEST(ClientLimits, MessagesAboveTheSizeLimitAreRefusedWithoutSending) {
    const ubus::BlobBuf fits = big(kFits);
    auto largest = fake::msg(MsgType::Invoke, 2, kOther, [&](MsgBuf& m) {
        m.put_u32(ubus::kAttrObjId, kOther);
        m.put_string(ubus::kAttrMethod, "m");
        m.put_raw(ubus::kAttrData, fits.members());
    });
    ASSERT_EQ(largest.size(), ubus::kHeaderLen + ubus::kMaxBodyLen);
    // seq 1 was the refused call; the largest call goes out, and so do the owner's messages.
    fake::Broker broker(Steps{hello(), expect(largest), send(status(2, kOther, 0, kOther)),
                              expect(fake::msg(MsgType::AddObject, 3, 0))} +
                        registered(3) +
                        Steps{send(call(7, kCaller, kObject, "big")),
                              expect(status(7, kCaller, ubus::kInvalidArgument, kObject))});
    ubus::Connection bus;
    ASSERT_EQ(bus.connect(broker.path()), ubus::kOk);
    EXPECT_EQ(bus.invoke(kOther, "m", big(kFits + 1).members(), {}, 5000), ubus::kInvalidArgument);
    EXPECT_EQ(bus.invoke(kOther, "m", fits.members(), {}, 5000), ubus::kOk);
    ASSERT_EQ(
        bus.add_anonymous_object([](ubus::Request& req) { return req.reply(big(ubus::kMaxBodyLen)); }).status,
        ubus::kOk);
    fake::pump(bus, broker);
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
    auto invoke = [](std::uint16_t seq, bool objid, bool method, bool data, bool no_reply,
                     std::string_view name = "m") {
        return fake::msg(MsgType::Invoke, seq, kCaller, [&](MsgBuf& m) {
            if (no_reply) m.put_u8(ubus::kAttrNoReply, 1);
            if (objid) m.put_u32(ubus::kAttrObjId, seq == 4 ? 0xdead : kObject);
            if (method) m.put_string(ubus::kAttrMethod, name);
            if (data) m.put_raw(ubus::kAttrData, {});
        });
    };
    auto reply = [](std::uint16_t seq) {
        return fake::msg(MsgType::Data, seq, kCaller, [](MsgBuf& m) {
            m.put_u32(ubus::kAttrObjId, kObject);
            const auto d = m.nest_open(ubus::kAttrData);
            m.add_string("path", "obj");
            m.close(d);
        });
    };
    fake::Broker broker(
        Steps{hello(), expect(fake::msg(MsgType::AddObject, 1, 0,
                                        [&](MsgBuf& m) {
                                            m.put_string(ubus::kAttrObjPath, "obj");
                                            m.put_raw(ubus::kAttrSignature, type->signature());
                                        }))} +
        registered(1) +
        Steps{send(invoke(3, false, true, true, false)),  // no object: ignored
              send(invoke(4, true, true, true, false)), expect(status(4, kCaller, ubus::kNotFound, 0xdead)),
              send(invoke(5, true, false, true, false)),
              expect(status(5, kCaller, ubus::kInvalidArgument, kObject)),
              send(invoke(6, true, true, false, false)),
              expect(status(6, kCaller, ubus::kInvalidArgument, kObject)),
              send(invoke(7, true, true, true, true, "nosuch")),          // no reply wanted: nothing
              send(invoke(8, true, true, true, true)), expect(reply(8)),  // DATA still goes out
              send(invoke(9, true, true, true, false, "drop")),
              expect(status(9, kCaller, ubus::kUnknownError, kObject)),
              send(invoke(10, true, true, true, false)), expect(reply(10)),
              expect(status(10, kCaller, ubus::kNoData, kObject))});
    ubus::Connection bus;
    ASSERT_EQ(bus.connect(broker.path()), ubus::kOk);
    ASSERT_EQ(bus.add_object("obj", type).status, ubus::kOk);
    fake::pump(bus, broker);
    EXPECT_THAT(broker.finish(), IsEmpty());
}

}  // namespace

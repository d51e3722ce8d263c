// Calls through the broker: who may answer, what travels with a call, how large a call may be,
// and what happens when one side goes away.
#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <thread>

#include "broker_process.hpp"
#include "raw_client.hpp"

namespace ubusd_test {
namespace {

using ubus::MsgType;

constexpr ubus::Policy kEcho[] = {{"caller", ubus::Type::Int32}, {"call", ubus::Type::Int32}};

// The user and group names the broker forwards for this process.
const std::pair<std::string, std::string>& caller_identity() {
    static const auto names = [] {
        const passwd* pw = ::getpwuid(::getuid());
        const group* gr = ::getgrgid(::getgid());
        return std::pair<std::string, std::string>(pw ? pw->pw_name : std::to_string(::getuid()),
                                                   gr ? gr->gr_name : std::to_string(::getgid()));
    }();
    return names;
}

class Routing : public ::testing::Test {
protected:
    BrokerProcess broker;
    RawClient owner{broker.socket()};
    RawClient caller{broker.socket()};
    Registered demo = add_object(owner, "demo");
};

TEST_F(Routing, OnlyTheOwnerAnswersAndOnlyWithWhatTheCallerNeeds) {
    RawClient intruder(broker.socket());
    add_object(intruder, "other");
    ubus::MsgBuf call = invoke_msg(7, demo.obj, "m1");
    call.put_u8(ubus::kAttrNoReply, 1);  // not the caller's to decide: dropped on the way
    caller.send(call);
    auto in = owner.read();
    ASSERT_TRUE(in);
    EXPECT_EQ(in->hdr().peer, caller.id());
    EXPECT_FALSE(in->attrs().has(ubus::kAttrNoReply));

    // A STATUS naming the object from someone else, and replies lacking their payload.
    ubus::MsgBuf forged = status_msg(7, caller.id(), demo.obj, 0);
    intruder.send(forged);
    ubus::MsgBuf bare_data(MsgType::Data, 7, caller.id());
    bare_data.put_u32(ubus::kAttrObjId, demo.obj);
    owner.send(bare_data);
    ubus::MsgBuf bare_status(MsgType::Status, 7, caller.id());
    bare_status.put_u32(ubus::kAttrObjId, demo.obj);
    owner.send(bare_status);
    EXPECT_TRUE(intruder.sync().empty()) << "dropped replies get no answer";
    EXPECT_TRUE(owner.sync().empty());
    EXPECT_TRUE(caller.sync().empty());

    ubus::MsgBuf real = status_msg(7, caller.id(), demo.obj, 3);
    owner.send(real);
    auto out = caller.read();
    ASSERT_TRUE(out);
    EXPECT_EQ(out->hdr().type, MsgType::Status);
    EXPECT_EQ(out->hdr().peer, demo.obj);
    EXPECT_EQ(out->attrs().u32(ubus::kAttrStatus), 3u);
}

TEST_F(Routing, ADescriptorSentWithADataReplyIsClosedNotForwarded) {
    std::signal(SIGPIPE, SIG_IGN);
    int p[2];
    ASSERT_EQ(::pipe(p), 0);
    ubus::UniqueFd read_end(p[0]), write_end(p[1]);
    // With a DATA reply the broker must close it: the pipe then has no reader left.
    ubus::BlobBuf payload;
    payload.add_string("k", "v");
    ubus::MsgBuf data(MsgType::Data, 9, caller.id());
    data.put_u32(ubus::kAttrObjId, demo.obj);
    data.put_data(payload);
    owner.send(data, read_end.get());
    read_end.reset();
    auto got = caller.read();
    ASSERT_TRUE(got);
    EXPECT_EQ(got->hdr().type, MsgType::Data);
    EXPECT_FALSE(got->fd);
    EXPECT_TRUE(caller.sync().empty());
    EXPECT_EQ(::write(write_end.get(), "x", 1), -1);
    EXPECT_EQ(errno, EPIPE);
}

// One call whose DATA holds `value_len` bytes in a single member.
ubus::MsgBuf call_with(std::uint32_t obj, std::size_t value_len) {
    ubus::BlobBuf data;
    std::vector<std::uint8_t> value(value_len);
    for (std::size_t i = 0; i < value.size(); ++i) value[i] = static_cast<std::uint8_t>(i * 7);
    data.add_value("", ubus::Type::Unspec, value);
    return invoke_msg(1, obj, "m1", data);
}

std::size_t string_attr_len(std::string_view s) {
    return ubus::pad4(4 + s.size() + 1);
}

TEST_F(Routing, CallsUpToTheSizeLimitArriveIntactAndLargerOnesAreRefused) {
    // The owner's copy also carries the caller's user and group: size the value so that the
    // forwarded body is exactly the limit.
    const auto& who = caller_identity();
    const std::size_t overhead = 4 + 8 + string_attr_len("m1") + string_attr_len(who.first) +
                                 string_attr_len(who.second) + 4 /* DATA */ + 8 /* member header */;
    const std::size_t fits = ubus::kMaxBodyLen - overhead;

    ubus::MsgBuf big = call_with(demo.obj, fits);
    caller.send(big);
    auto in = owner.read();
    ASSERT_TRUE(in);
    EXPECT_EQ(in->bytes.size(), ubus::kHeaderLen + ubus::kMaxBodyLen);
    const ubus::MsgAttrs sent(ubus::Bytes(big.frame()).subspan(ubus::kHeaderLen + 4));
    EXPECT_TRUE(std::ranges::equal(in->attrs().data(), sent.data()));

    // An answer of the largest size goes back intact as well.
    ubus::MsgBuf reply(MsgType::Data, 1, caller.id());
    reply.put_u32(ubus::kAttrObjId, demo.obj);
    reply.put_raw(ubus::kAttrData, std::vector<std::uint8_t>(ubus::kMaxBodyLen - 4 - 8 - 4, 0x3c));
    ASSERT_EQ(reply.frame().size(), ubus::kHeaderLen + ubus::kMaxBodyLen);
    owner.send(reply);
    auto out = caller.read();
    ASSERT_TRUE(out);
    EXPECT_TRUE(std::ranges::equal(ubus::Bytes(out->bytes).subspan(ubus::kHeaderLen),
                                   ubus::Bytes(reply.frame()).subspan(ubus::kHeaderLen)));

    // Four bytes more and the owner could not take it: the caller is told instead.
    ubus::MsgBuf too_big = call_with(demo.obj, fits + 4);
    EXPECT_EQ(caller.request(too_big).status, ubus::kInvalidArgument);
    EXPECT_TRUE(owner.sync().empty());
}

TEST_F(Routing, CallersOfAnOwnerThatDiesAreNotAnsweredAndRepliesToDepartedCallersAreDropped) {
    // The owner is a real process, killed while it holds the call.
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t pid = ::fork();
    if (pid == 0) {
        try {
            RawClient slow(broker.socket());
            Registered r = add_object(slow, "slow");
            (void)!::write(ready[1], &r.obj, sizeof(r.obj));
            if (slow.read(60s)) (void)!::write(ready[1], "c", 1);
            ::pause();
        } catch (...) {
        }
        ::_exit(1);
    }
    const std::uint32_t listener = add_object(caller, std::nullopt).obj;
    ubus::MsgBuf reg = register_msg(2, listener, "ubus.object.remove");
    ASSERT_EQ(caller.request(reg).status, 0);
    std::uint32_t slow_obj = 0;
    ASSERT_EQ(::read(ready[0], &slow_obj, sizeof(slow_obj)), static_cast<ssize_t>(sizeof(slow_obj)));
    ubus::MsgBuf call = invoke_msg(5, slow_obj, "m1");
    caller.send(call);
    char got_call;
    ASSERT_EQ(::read(ready[0], &got_call, 1), 1);
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
    ::close(ready[0]);
    ::close(ready[1]);

    // The object goes, and nothing about the call ever comes: the caller's own timeout is all
    // it has.
    auto removed = caller.read();
    ASSERT_TRUE(removed);
    EXPECT_EQ(removed->attrs().str(ubus::kAttrMethod), "ubus.object.remove");
    EXPECT_TRUE(caller.sync().empty());
    ubus::MsgBuf lookup = lookup_msg(6, "slow");
    EXPECT_EQ(caller.request(lookup).status, ubus::kNotFound);

    // The other way round: the caller leaves, the owner answers into the void and carries on.
    RawClient gone(broker.socket());
    ubus::MsgBuf call2 = invoke_msg(1, demo.obj, "m1");
    gone.send(call2);
    ASSERT_TRUE(owner.read());
    const std::uint32_t gone_id = gone.id();
    gone.close();
    ubus::MsgBuf late = status_msg(1, gone_id, demo.obj, 0);
    owner.send(late);
    EXPECT_TRUE(owner.sync().empty());
}

TEST_F(Routing, ConcurrentCallersEachGetTheirOwnAnswers) {
    constexpr int kCallers = 6, kCalls = 150;
    std::thread serve([&] {
        for (int n = 0; n < kCallers * kCalls; ++n) {
            auto in = owner.read(20s);
            if (!in) return ADD_FAILURE() << "owner starved after " << n << " calls";
            const ubus::MsgHeader h = in->hdr();
            ubus::MsgBuf echo(MsgType::Data, h.seq, h.peer);
            echo.put_u32(ubus::kAttrObjId, demo.obj);
            echo.put_raw(ubus::kAttrData, in->attrs().data());
            owner.send(echo);
            ubus::MsgBuf done = status_msg(h.seq, h.peer, demo.obj, 0);
            owner.send(done);
        }
    });
    std::vector<std::thread> callers;
    for (int t = 0; t < kCallers; ++t) {
        callers.emplace_back([&, t] {
            RawClient me(broker.socket());
            // All calls go out before any answer is read, so frames pile up on every socket.
            for (int i = 1; i <= kCalls; ++i) {
                ubus::BlobBuf data;
                data.add_i32("caller", t);
                data.add_i32("call", i);
                ubus::MsgBuf call = invoke_msg(static_cast<std::uint16_t>(i), demo.obj, "m1", data);
                me.send(call);
            }
            for (int i = 1; i <= kCalls; ++i) {
                auto data = me.read(20s);
                auto status = me.read(20s);
                if (!data || !status) return ADD_FAILURE() << "caller " << t << " starved at call " << i;
                EXPECT_EQ(data->hdr().seq, i);
                EXPECT_EQ(status->hdr().seq, i);
                const auto args = ubus::parse(kEcho, data->attrs().data());
                EXPECT_EQ(args[0].as_i32(), t);
                EXPECT_EQ(args[1].as_i32(), i);
            }
        });
    }
    for (auto& c : callers) c.join();
    serve.join();
}

TEST_F(Routing, OwnersLearnWhoCallsAndOnlyRootMayMonitor) {
    if (::getuid() != 0) GTEST_SKIP() << "needs root to act as another user";
    constexpr uid_t kNobody = 65534;
    const pid_t pid = ::fork();
    if (pid == 0) {
        int failed = 1;
        try {
            if (::setgid(kNobody) == 0 && ::setuid(kNobody) == 0) {
                RawClient guest(broker.socket());
                ubus::MsgBuf monitor = invoke_msg(1, ubus::kMonitorObject, "add");
                ubus::MsgBuf query = invoke_msg(2, ubus::kAclObject, "query");
                ubus::MsgBuf call = invoke_msg(3, demo.obj, "m1");
                const Reply acl = guest.request(query);
                failed = guest.request(monitor).status != ubus::kPermissionDenied || acl.status != 0 ||
                         acl.data.size() != 1;
                guest.send(call);
                guest.sync();
            }
        } catch (...) {
        }
        ::_exit(failed);
    }
    auto in = owner.read();
    int status = -1;
    ::waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the guest saw other answers";
    ASSERT_TRUE(in);
    const passwd* pw = ::getpwuid(kNobody);
    const group* gr = ::getgrgid(kNobody);
    EXPECT_EQ(in->attrs().str(ubus::kAttrUser), pw ? pw->pw_name : "65534");
    EXPECT_EQ(in->attrs().str(ubus::kAttrGroup), gr ? gr->gr_name : "65534");

    ubus::MsgBuf monitor = invoke_msg(1, ubus::kMonitorObject, "add");
    EXPECT_EQ(caller.request(monitor).status, 0);
    ubus::MsgBuf other = invoke_msg(2, ubus::kMonitorObject, "watch");
    EXPECT_EQ(caller.request(other).status, ubus::kMethodNotFound);
}

}  // namespace
}  // namespace ubusd_test

// Hostile and careless clients: each can lose its own connection or its own messages, and
// everyone else keeps being served.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <random>

#include "broker_process.hpp"
#include "golden_session.hpp"
#include "raw_client.hpp"

namespace ubusd_test {
namespace {

using ubus::MsgType;

std::vector<std::uint8_t> header_announcing(std::uint32_t body_len) {
    std::vector<std::uint8_t> h(12, 0);
    h[1] = static_cast<std::uint8_t>(MsgType::Ping);
    ubus::wire::put32(h.data() + 8, body_len);
    return h;
}

TEST(Robustness, ABadLengthCostsOnlyItsSendersConnection) {
    BrokerProcess broker;
    RawClient bystander(broker.socket());
    for (std::uint32_t len : {std::uint32_t{(1u << 20) + 8}, std::uint32_t{(1u << 20) + 1}, 3u, 0u}) {
        RawClient bad(broker.socket());
        bad.send(header_announcing(len));
        EXPECT_TRUE(bad.wait_closed()) << "body length " << len;
        EXPECT_TRUE(bystander.sync().empty());
    }
    // The largest legal body is fine: a PING of 1 MiB comes back whole.
    RawClient big(broker.socket());
    std::vector<std::uint8_t> ping = header_announcing(1u << 20);
    ping.resize(ubus::kHeaderLen + (1u << 20), 0x5a);
    big.send(ping);
    auto echo = big.read();
    ASSERT_TRUE(echo);
    EXPECT_TRUE(std::ranges::equal(ubus::Bytes(echo->bytes).subspan(ubus::kHeaderLen),
                                   ubus::Bytes(ping).subspan(ubus::kHeaderLen)));
}

TEST(Robustness, GarbageAndMangledMessagesLeaveTheBusWorking) {
    BrokerProcess broker;
    RawClient owner(broker.socket());
    const Registered demo = add_object(owner, "demo");

    // Real requests from the captures with bytes flipped at random, sent in bursts on several
    // connections, some of which then vanish mid-message.
    std::vector<std::vector<std::uint8_t>> sources;
    for (const char* f :
         {"session_ping_and_errors.txt", "session_subscribe_notify.txt", "session_events.txt"})
        for (const golden::Step& s : golden::read_session(f))
            if (s.kind == golden::Step::ToBroker) sources.push_back(s.bytes);
    std::mt19937 rng(20240611);
    for (int conn = 0; conn < 40; ++conn) {
        RawClient hostile(broker.socket());
        std::vector<std::uint8_t> burst;
        for (int m = 0; m < 10; ++m) {
            std::vector<std::uint8_t> msg = sources[rng() % sources.size()];
            for (int flips = 1 + static_cast<int>(rng() % 4); flips > 0; --flips)
                msg[rng() % msg.size()] ^= static_cast<std::uint8_t>(1u << (rng() % 8));
            burst.insert(burst.end(), msg.begin(), msg.end());
        }
        if (conn % 4 == 0) burst.resize(burst.size() / 2);  // cut off mid-message
        if (conn % 5 == 0)
            for (auto& b : burst) b = static_cast<std::uint8_t>(rng());
        hostile.send(burst);
    }

    RawClient caller(broker.socket());
    ubus::MsgBuf call = invoke_msg(1, demo.obj, "m1");
    caller.send(call);
    // The owner may have been sent mangled calls and notifications meanwhile; the real call is
    // among what it gets.
    bool called = false;
    while (auto in = owner.read(2s)) {
        if (in->hdr().type == MsgType::Invoke && in->hdr().peer == caller.id()) {
            called = true;
            break;
        }
    }
    EXPECT_TRUE(called);
    ubus::MsgBuf lookup = lookup_msg(2, "demo");
    EXPECT_EQ(caller.request(lookup).data.size(), 1u);
}

TEST(Robustness, AClientThatDoesNotReadLosesMessagesWithoutHoldingAnyoneUp) {
    BrokerProcess broker;
    RawClient sleeper(broker.socket());
    const std::uint32_t obj = add_object(sleeper, std::nullopt).obj;
    ubus::MsgBuf reg = register_msg(2, obj, "*");
    ASSERT_EQ(sleeper.request(reg).status, 0);

    RawClient sender(broker.socket());
    ubus::BlobBuf data;
    data.add_string("blob", std::string(64 * 1024, 'x'));
    constexpr int kEvents = 48;  // 3 MiB for a reader that takes none of it
    for (int i = 1; i <= kEvents; ++i) {
        ubus::MsgBuf ev = event_msg(static_cast<std::uint16_t>(i), "bulk", data);
        ASSERT_EQ(sender.request(ev).status, 0) << "the sender was held up at event " << i;
    }

    // What the sleeper finally reads is whole messages, in order, with the overflow missing.
    int received = 0;
    std::uint16_t last_seq = 0;
    for (const Received& r : sleeper.sync()) {
        ++received;
        EXPECT_GT(r.hdr().seq, last_seq);
        last_seq = r.hdr().seq;
        EXPECT_TRUE(std::ranges::equal(r.attrs().data(), data.members()));
    }
    EXPECT_GT(received, 0);
    EXPECT_LT(received, kEvents);
}

TEST(Robustness, DescriptorsFedIntoAnUnfinishedMessageGetTheClientDropped) {
    BrokerProcess broker;
    RawClient hoarder(broker.socket());
    hoarder.send(header_announcing(1024));
    int p[2];
    ASSERT_EQ(::pipe(p), 0);
    for (int i = 0; i < 32; ++i) {
        const std::uint8_t byte = 0;
        if (!ubus::send_frame_blocking(hoarder.fd(), ubus::Bytes(&byte, 1), p[0])) break;
    }
    ::close(p[0]);
    ::close(p[1]);
    EXPECT_TRUE(hoarder.wait_closed());
}

TEST(Robustness, TheBrokerCreatesItsSocketForEveryoneAndRemovesItOnSigterm) {
    BrokerProcess broker;
    struct stat st {};
    ASSERT_EQ(::stat(broker.socket().c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0666u);
    const int status = broker.stop();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_NE(::access(broker.socket().c_str(), F_OK), 0);
}

}  // namespace
}  // namespace ubusd_test

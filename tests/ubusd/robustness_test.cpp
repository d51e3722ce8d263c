// Careless and hostile clients lose their own messages or their own connection, and hold up no one;
// the broker's socket is everyone's and goes with the broker.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "broker_process.hpp"
#include "pipe_text.hpp"
#include "raw_client.hpp"

namespace bus_test {
namespace {

TEST(Robustness, AClientThatDoesNotReadLosesWholeMessagesWithoutHoldingAnyoneUp) {
    BrokerProcess broker;
    RawClient sleeper(broker.socket()), sender(broker.socket());
    ASSERT_EQ(sleeper.status_of(register_msg(2, add_object(sleeper, std::nullopt), "*")), 0);
    ubus::BlobBuf data;
    data.add_string("blob", std::string(64 * 1024, 'x'));
    constexpr int kEvents = 48;  // 3 MiB for a reader that takes none of it
    for (int i = 1; i <= kEvents; ++i)
        ASSERT_EQ(sender.status_of(event_msg(static_cast<std::uint16_t>(i), "bulk", data)), 0)
            << "the sender was held up at event " << i;

    // What the sleeper finally reads is whole messages, in order, with the overflow missing.
    std::uint16_t last_seq = 0;
    const std::vector<Received> got = sleeper.sync();
    for (const Received& r : got) {
        EXPECT_GT(r.hdr().seq, std::exchange(last_seq, r.hdr().seq));
        EXPECT_TRUE(std::ranges::equal(r.attrs().data(), data.members()));
    }
    EXPECT_GT(got.size(), 0u);
    EXPECT_LT(got.size(), static_cast<std::size_t>(kEvents));
}

TEST(Robustness, DescriptorsFedIntoAnUnfinishedMessageGetTheClientDropped) {
    BrokerProcess broker;
    RawClient hoarder(broker.socket());
    ubus::MsgBuf ping(ubus::MsgType::Ping, 1, 0);
    ping.put_raw(ubus::kAttrData, std::vector<std::uint8_t>(1024));
    hoarder.send(ping.frame().first(12));
    const Pipe p;
    const std::uint8_t byte = 0;
    for (int i = 0; i < 32 && ubus::send_frame_blocking(hoarder.fd(), ubus::Bytes(&byte, 1), p.r.get());
         ++i) {
    }
    EXPECT_TRUE(hoarder.wait_closed());
}

TEST(Robustness, TheBrokerCreatesItsSocketForEveryoneAndRemovesItOnSigterm) {
    BrokerProcess broker;
    struct stat st {};
    ASSERT_EQ(::stat(broker.socket().c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0666u);
    EXPECT_EQ(exit_code(broker.stop()), 0);
    EXPECT_NE(::access(broker.socket().c_str(), F_OK), 0);
}

}  // namespace
}  // namespace bus_test

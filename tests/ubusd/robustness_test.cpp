// Hostile clients lose their own connection; the broker's socket is everyone's and goes with the
// broker. (What a client that does not read loses: the output queue's unit test.)
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "broker_process.hpp"
#include "pipe_text.hpp"
#include "raw_client.hpp"

namespace bus_test {
namespace {

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

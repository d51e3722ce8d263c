// The broker's socket is everyone's and goes with the broker.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "broker_process.hpp"

namespace bus_test {
namespace {

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

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "ubus/loop.hpp"

namespace ubus {
namespace {

using namespace std::chrono_literals;
using Log = std::vector<std::string>;

TEST(LoopTimer, FireInDeadlineOrderAndCancelledOnesNever) {
    Loop loop;
    Log log;
    loop.add_timer(30ms, [&] { log.push_back("30"); });
    loop.add_timer(10ms, [&] { log.push_back("10"); });
    const Loop::Id t20 = loop.add_timer(20ms, [&] { log.push_back("20"); });
    Loop::Id zero_b = 0;
    // Both zero-delay timers are due in the same round; the first cancels the second.
    loop.add_timer(0ms, [&] {
        log.push_back("0a");
        loop.cancel_timer(zero_b);
        loop.cancel_timer(t20);
    });
    zero_b = loop.add_timer(0ms, [&] { log.push_back("0b"); });
    loop.add_timer(50ms, [&] {
        log.push_back("50");
        loop.stop();
    });
    loop.run();
    EXPECT_EQ(log, (Log{"0a", "10", "30", "50"}));
}

TEST(LoopTimer, TimersAddedFromCallbacksFire) {
    Loop loop;
    Log log;
    loop.add_timer(10ms, [&] {
        log.push_back("first");
        loop.add_timer(0ms, [&] {
            log.push_back("second");
            loop.add_timer(5ms, [&] {
                log.push_back("third");
                loop.stop();
            });
        });
    });
    loop.run();
    EXPECT_EQ(log, (Log{"first", "second", "third"}));
}

TEST(LoopTimer, StopEndsOnlyTheInnermostRun) {
    Loop loop;
    Log log;

    loop.stop();  // outside run(): the next run() returns at once, before any callback
    loop.add_timer(0ms, [&] { log.push_back("early"); });
    const Loop::Id if_stuck = loop.add_timer(5s, [&] { loop.stop(); });
    loop.run();
    loop.cancel_timer(if_stuck);
    EXPECT_TRUE(log.empty());

    // A callback waits in a nested run; stopping that run leaves the outer one going.
    loop.add_timer(0ms, [&] {
        log.push_back("outer callback");
        loop.add_timer(1ms, [&] {
            log.push_back("inner stop");
            loop.stop();
        });
        loop.run();
        log.push_back("nested run returned");
    });
    loop.add_timer(20ms, [&] {
        log.push_back("outer stop");
        loop.stop();
    });
    loop.run();
    EXPECT_EQ(log, (Log{"early", "outer callback", "inner stop", "nested run returned", "outer stop"}));
}

}  // namespace
}  // namespace ubus

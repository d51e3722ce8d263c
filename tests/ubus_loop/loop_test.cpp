// The event loop: descriptor watches, timers, and the signals that end it. (Readiness, hang-ups
// and watches removed from their own callback are what the broker and the client do on every
// disconnect, under the sanitizers in their integration tests.)
#include "ubus/loop.hpp"

#include <gtest/gtest.h>
#include <signal.h>

#include <future>
#include <thread>

#include "pipe_text.hpp"

namespace ubus {
namespace {

using namespace std::chrono_literals;
using bus_test::Pipe;
using Log = std::vector<std::string>;

// Ends the current run() after the descriptor events of this round: a zero-delay timer is due in
// the same round, and timers run after descriptors.
void stop_after_this_round(Loop& loop) {
    loop.add_timer(0ms, [&loop] { loop.stop(); });
}

TEST(LoopFd, ARemovedWatchIsNotCalledForAnEventAlreadyInTheBatch) {
    Loop loop;
    Pipe sides[2], fresh;
    Loop::Id ids[2] = {}, fresh_id = 0;
    int calls[2] = {}, fresh_calls = 0;
    for (int i = 0; i < 2; ++i) {
        sides[i].put("x");
        ids[i] = loop.add_fd(sides[i].r.get(), Loop::kRead, [&, i](std::uint32_t) {
            ++calls[i];
            if (fresh_id != 0) return;
            // Whichever side runs first removes the other, whose event is pending in this batch,
            // and puts a new readable pipe under the other's descriptor number.
            loop.remove_fd(ids[1 - i]);
            fresh.put("y");
            ASSERT_GE(::dup2(fresh.r.get(), sides[1 - i].r.get()), 0);
            fresh_id = loop.add_fd(sides[1 - i].r.get(), Loop::kRead, [&](std::uint32_t) {
                ++fresh_calls;
                fresh.take();
            });
        });
    }
    stop_after_this_round(loop);
    loop.run();
    EXPECT_EQ(calls[0] + calls[1], 1);
    EXPECT_EQ(fresh_calls, 0) << "the new watch was called for the removed watch's event";
    stop_after_this_round(loop);
    loop.run();
    EXPECT_EQ(fresh_calls, 1);
}

TEST(LoopTimer, TimersFireInDeadlineOrderCancelledOnesNeverAndStopEndsOnlyTheInnermostRun) {
    Loop loop;
    Log log;
    loop.stop();  // outside run(): the next run() returns at once, before any callback
    loop.add_timer(0ms, [&] { log.push_back("early"); });
    const Loop::Id if_stuck = loop.add_timer(5s, [&] { loop.stop(); });
    loop.run();
    loop.cancel_timer(if_stuck);
    EXPECT_TRUE(log.empty());

    loop.add_timer(30ms, [&] { log.push_back("30"); });
    loop.add_timer(10ms, [&] {
        log.push_back("10");
        // The callback waits in a nested run, ended by a timer it added; the outer run goes on.
        loop.add_timer(1ms, [&] {
            log.push_back("inner stop");
            loop.stop();
        });
        loop.run();
        log.push_back("nested run returned");
    });
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
    EXPECT_EQ(log, (Log{"early", "0a", "10", "inner stop", "nested run returned", "30", "50"}));
}

// Only a signal can end these runs in time; this ends them otherwise, so that a broken wake-up
// fails the test instead of hanging it.
void stop_if_stuck(Loop& loop) {
    loop.add_timer(10s, [&loop] { loop.stop(); });
}

void (*disposition(int sig))(int) {
    struct sigaction sa {};
    ::sigaction(sig, nullptr, &sa);
    return sa.sa_handler;
}

TEST(LoopSignal, SigtermAndSigintEndRunFromAnyThreadAndTheDispositionsLastAsLongAsTheLoop) {
    ASSERT_EQ(disposition(SIGPIPE), SIG_DFL);
    {
        Loop loop;
        Pipe p;
        p.r.reset();
        EXPECT_EQ(::write(p.w.get(), "x", 1), -1);  // with SIGPIPE in force we would be dead here

        stop_if_stuck(loop);
        loop.add_timer(0ms, [] { ::kill(::getpid(), SIGTERM); });
        loop.run();
        EXPECT_TRUE(loop.stopped_by_signal());

        ::kill(::getpid(), SIGINT);  // even before run()
        stop_if_stuck(loop);
        loop.run();
        EXPECT_TRUE(loop.stopped_by_signal());

        // raise() in a thread targets that thread, which does not block the signal: the handler runs
        // there, while the loop thread sleeps in epoll_wait.
        std::promise<void> running;
        loop.add_timer(0ms, [&] { running.set_value(); });
        std::thread other([f = running.get_future()] {
            f.wait();
            ::raise(SIGTERM);
        });
        stop_if_stuck(loop);
        loop.run();
        other.join();
        EXPECT_TRUE(loop.stopped_by_signal());

        loop.add_timer(0ms, [&] { loop.stop(); });
        loop.run();
        EXPECT_FALSE(loop.stopped_by_signal()) << "ended by stop()";
    }
    EXPECT_EQ(Loop::current(), nullptr);
    for (int sig : {SIGPIPE, SIGTERM, SIGINT, SIGCHLD}) EXPECT_EQ(disposition(sig), SIG_DFL) << sig;
    Loop again;  // one at a time, not one per process lifetime
    EXPECT_EQ(Loop::current(), &again);
}

}  // namespace
}  // namespace ubus

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <future>
#include <thread>

#include "pipe.hpp"
#include "ubus/loop.hpp"

namespace ubus {
namespace {

using namespace std::chrono_literals;
using testing::Pipe;

void (*disposition(int sig))(int) {
    struct sigaction sa {};
    ::sigaction(sig, nullptr, &sa);
    return sa.sa_handler;
}

// Only a signal can end these runs in time; this ends them otherwise, so that a broken wake-up
// fails the test instead of hanging it.
void stop_if_stuck(Loop& loop) {
    loop.add_timer(10s, [&loop] { loop.stop(); });
}

TEST(LoopSignal, SigtermEndsRunEvenWhenItArrivedBeforeRun) {
    Loop loop;
    stop_if_stuck(loop);
    loop.add_timer(0ms, [] { ::kill(::getpid(), SIGTERM); });
    loop.run();
    EXPECT_TRUE(loop.stopped_by_signal());

    ::kill(::getpid(), SIGINT);
    stop_if_stuck(loop);
    loop.run();
    EXPECT_TRUE(loop.stopped_by_signal());

    // A run ended by stop() is not reported as ended by a signal.
    loop.add_timer(0ms, [&] { loop.stop(); });
    loop.run();
    EXPECT_FALSE(loop.stopped_by_signal());
}

TEST(LoopSignal, SignalTakenByAnotherThreadWakesTheLoop) {
    Loop loop;
    std::promise<void> running;
    loop.add_timer(0ms, [&] { running.set_value(); });
    stop_if_stuck(loop);
    // raise() in a thread targets that thread, which does not block the signal: the handler runs
    // there, while the loop thread sleeps in epoll_wait.
    std::thread other([f = running.get_future()] {
        f.wait();
        ::raise(SIGTERM);
    });
    loop.run();
    other.join();
    EXPECT_TRUE(loop.stopped_by_signal());
}

TEST(LoopSignal, DispositionsHeldOnlyWhileTheLoopExists) {
    ASSERT_EQ(disposition(SIGPIPE), SIG_DFL);
    ASSERT_EQ(disposition(SIGTERM), SIG_DFL);
    {
        Loop loop;
        EXPECT_EQ(Loop::current(), &loop);
        Pipe p;
        p.r.reset();
        errno = 0;
        EXPECT_EQ(::write(p.w.get(), "x", 1), -1);  // with SIGPIPE in force we would be dead here
        EXPECT_EQ(errno, EPIPE);
    }
    EXPECT_EQ(Loop::current(), nullptr);
    EXPECT_EQ(disposition(SIGPIPE), SIG_DFL);
    EXPECT_EQ(disposition(SIGTERM), SIG_DFL);
    EXPECT_EQ(disposition(SIGCHLD), SIG_DFL);

    Loop again;  // one at a time, not one per process lifetime
    EXPECT_EQ(Loop::current(), &again);
}

TEST(LoopSignalDeathTest, SecondLoopInOneProcessAborts) {
    EXPECT_DEATH(
        {
            Loop first;
            Loop second;
        },
        "second loop");
}

}  // namespace
}  // namespace ubus

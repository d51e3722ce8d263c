#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "pipe.hpp"
#include "ubus/loop.hpp"

namespace ubus {
namespace {

using namespace std::chrono_literals;
using testing::Pipe;

// Ends the current run() after the descriptor events of the first round have been dispatched:
// a zero-delay timer is due in that same round and timers run after descriptors.
void stop_after_this_round(Loop& loop) {
    loop.add_timer(0ms, [&loop] { loop.stop(); });
}

TEST(LoopFd, PipeReadinessHangUpAndSelfRemoval) {
    Loop loop;
    Pipe p;
    p.put("ab");
    std::vector<std::uint32_t> seen;
    std::string got;
    Loop::Id id = 0;
    // Captured by value and used after the watch removed itself: the callback object must stay
    // alive until it returns.
    const std::string farewell = "removed while running, still intact";
    id = loop.add_fd(p.r.get(), Loop::kRead, [&, farewell](std::uint32_t ev) {
        seen.push_back(ev);
        if (seen.size() == 1) {
            got += p.take(1);
            p.w.reset();  // hang-up while one byte is still unread
        } else if (seen.size() == 2) {
            got += p.take(1);
        } else {
            loop.remove_fd(id);
            got += " / " + farewell;
            loop.stop();
        }
    });
    ASSERT_NE(id, 0u);
    loop.run();

    const std::vector<std::uint32_t> expected = {Loop::kRead, Loop::kRead | Loop::kError, Loop::kError};
    EXPECT_EQ(seen, expected);
    EXPECT_EQ(got, "ab / removed while running, still intact");
}

TEST(LoopFd, WriteInterestCanBeDropped) {
    Loop loop;
    Pipe p;
    int calls = 0;
    Loop::Id id = 0;
    id = loop.add_fd(p.w.get(), Loop::kWrite, [&](std::uint32_t ev) {
        EXPECT_EQ(ev, Loop::kWrite);
        ++calls;
        EXPECT_TRUE(loop.modify_fd(id, 0));
    });
    ASSERT_NE(id, 0u);
    // The pipe stays writable; level-triggered, the watch would fire every round if the interest
    // were still there.
    loop.add_timer(30ms, [&] { loop.stop(); });
    loop.run();
    EXPECT_EQ(calls, 1);
}

TEST(LoopFd, RemovedWatchIsNotCalledLaterInTheSameBatch) {
    Loop loop;
    struct Side {
        Pipe pipe;
        Loop::Id id = 0;
        int calls = 0;
    };
    Side sides[2];
    Pipe fresh;
    Loop::Id fresh_id = 0;
    int fresh_calls = 0;

    for (int i = 0; i < 2; ++i) {
        sides[i].pipe.put("x");
        sides[i].id = loop.add_fd(sides[i].pipe.r.get(), Loop::kRead, [&, i](std::uint32_t) {
            ++sides[i].calls;
            if (fresh_id != 0) return;
            // Whichever side runs first removes the other, whose event is still pending in this
            // batch, and puts a new readable pipe under the other's descriptor number.
            Side& other = sides[1 - i];
            loop.remove_fd(other.id);
            fresh.put("y");
            ASSERT_GE(::dup2(fresh.r.get(), other.pipe.r.get()), 0);
            fresh_id = loop.add_fd(other.pipe.r.get(), Loop::kRead, [&](std::uint32_t) {
                ++fresh_calls;
                fresh.take();
            });
        });
    }
    stop_after_this_round(loop);
    loop.run();

    EXPECT_EQ(sides[0].calls + sides[1].calls, 1);
    ASSERT_NE(fresh_id, 0u);
    EXPECT_EQ(fresh_calls, 0) << "the new watch was called for the removed watch's event";

    stop_after_this_round(loop);
    loop.run();
    EXPECT_EQ(fresh_calls, 1);
}

TEST(LoopFd, StaleWatchDoesNotDisturbNewerWatchOnSameNumber) {
    Loop loop;
    Pipe old_pipe;
    Pipe new_pipe;
    const int number = old_pipe.r.get();
    const Loop::Id stale = loop.add_fd(number, Loop::kRead, [](std::uint32_t) {});
    ASSERT_NE(stale, 0u);
    EXPECT_EQ(loop.add_fd(number, Loop::kRead, [](std::uint32_t) {}), 0u) << "one watch per descriptor";
    EXPECT_EQ(loop.add_fd(-1, Loop::kRead, [](std::uint32_t) {}), 0u);

    // Closed before its watch was removed, then the number is reused for another pipe.
    ASSERT_GE(::dup2(new_pipe.r.get(), number), 0);
    int calls = 0;
    const Loop::Id newer = loop.add_fd(number, Loop::kRead, [&](std::uint32_t) {
        ++calls;
        loop.stop();
    });
    ASSERT_NE(newer, 0u);
    loop.remove_fd(stale);  // must not unregister the newer watch

    new_pipe.put("z");
    loop.add_timer(5s, [&] { loop.stop(); });  // only if the newer watch was lost
    loop.run();
    EXPECT_EQ(calls, 1);

    // After a proper removal the descriptor can be watched again.
    loop.remove_fd(newer);
    EXPECT_NE(loop.add_fd(number, Loop::kRead, [](std::uint32_t) {}), 0u);
}

}  // namespace
}  // namespace ubus

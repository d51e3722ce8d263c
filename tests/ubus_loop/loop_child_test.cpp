#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <map>
#include <stdexcept>

#include "pipe.hpp"
#include "ubus/loop.hpp"

namespace ubus {
namespace {

using namespace std::chrono_literals;
using testing::Pipe;

// Blocks until `pid` has exited, leaving it unreaped (a zombie).
void wait_until_exited(pid_t pid) {
    siginfo_t info{};
    while (::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT) < 0 && errno == EINTR) {
    }
}

bool is_unreaped_child(pid_t pid) {
    siginfo_t info{};
    return ::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0;
}

// Lets the loop run short rounds until it has reaped `pid` (bounded).
bool loop_reaps(Loop& loop, pid_t pid) {
    for (int round = 0; round < 500 && is_unreaped_child(pid); ++round) {
        loop.add_timer(10ms, [&loop] { loop.stop(); });
        loop.run();
    }
    return !is_unreaped_child(pid);
}

TEST(LoopChild, ExitStatusesOfManyChildrenAreReported) {
    Loop loop;
    std::map<pid_t, int> expected_code;  // -1: killed by SIGKILL
    std::map<pid_t, int> reported;
    auto on_exit = [&](pid_t pid, int status) {
        reported[pid] = status;
        if (reported.size() == expected_code.size()) loop.stop();
    };
    // Exiting together, several children may be announced by a single SIGCHLD.
    for (int code = 0; code < 6; ++code) {
        const pid_t pid = loop.fork_child([code] { return code == 0 ? 3 : 10 + code; });
        ASSERT_GT(pid, 0);
        expected_code[pid] = code == 0 ? 3 : 10 + code;
        ASSERT_NE(loop.watch_child(pid, on_exit), 0u);
    }
    const pid_t killed = loop.fork_child([] {
        ::kill(::getpid(), SIGKILL);
        return 0;
    });
    ASSERT_GT(killed, 0);
    expected_code[killed] = -1;
    ASSERT_NE(loop.watch_child(killed, on_exit), 0u);

    loop.add_timer(10s, [&] { loop.stop(); });
    loop.run();

    ASSERT_EQ(reported.size(), expected_code.size());
    for (const auto& [pid, code] : expected_code) {
        const int status = reported[pid];
        if (code < 0) {
            EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << "status " << status;
        } else {
            EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == code) << "status " << status;
        }
    }
}

TEST(LoopChild, ExitBeforeWatchIsReportedFromTheLoop) {
    Loop loop;
    const pid_t pid = loop.fork_child([] { return 5; });
    ASSERT_GT(pid, 0);
    wait_until_exited(pid);  // exited, not yet reaped by anyone

    int status = -1;
    ASSERT_NE(loop.watch_child(pid,
                               [&](pid_t who, int st) {
                                   EXPECT_EQ(who, pid);
                                   status = st;
                                   loop.stop();
                               }),
              0u);
    EXPECT_EQ(status, -1) << "reported from inside watch_child, not from the loop";
    loop.add_timer(10s, [&] { loop.stop(); });
    loop.run();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 5) << "status " << status;
}

TEST(LoopChild, UnwatchedChildIsReapedAndALateWatchStillLearnsItsStatus) {
    Loop loop;
    const pid_t pid = ::fork();  // any child, not only those of fork_child
    ASSERT_GE(pid, 0);
    if (pid == 0) ::_exit(6);
    wait_until_exited(pid);
    ASSERT_TRUE(loop_reaps(loop, pid)) << "an unwatched child was left as a zombie";

    int status = -1;
    ASSERT_NE(loop.watch_child(pid,
                               [&](pid_t, int st) {
                                   status = st;
                                   loop.stop();
                               }),
              0u);
    loop.add_timer(10s, [&] { loop.stop(); });
    loop.run();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 6) << "status " << status;

    // Process groups and processes that are not our children cannot be watched.
    EXPECT_EQ(loop.watch_child(0, [](pid_t, int) {}), 0u);
    EXPECT_EQ(loop.watch_child(-1, [](pid_t, int) {}), 0u);
    EXPECT_EQ(loop.watch_child(::getppid(), [](pid_t, int) {}), 0u);
}

// Writes into a pipe when destroyed: shows whether a child unwound the parent's stack.
struct WritesWhenDestroyed {
    int fd;
    ~WritesWhenDestroyed() {
        if (fd >= 0) {
            [[maybe_unused]] const ssize_t n = ::write(fd, "d", 1);
        }
    }
};

bool default_disposition(int sig) {
    struct sigaction sa {};
    ::sigaction(sig, nullptr, &sa);
    return sa.sa_handler == SIG_DFL;
}

int check_clean_start() {
    int failures = 0;
    for (int sig : {SIGINT, SIGTERM, SIGCHLD, SIGPIPE, SIGHUP}) {
        if (!default_disposition(sig)) failures |= 1;
    }
    sigset_t mask;
    ::sigprocmask(SIG_SETMASK, nullptr, &mask);
    for (int sig = 1; sig < 32; ++sig) {
        if (sigismember(&mask, sig) == 1) failures |= 2;
    }
    if (Loop::current() != nullptr) failures |= 4;
    // The child is free to run a loop of its own.
    Loop own;
    own.add_timer(0ms, [&own] { own.stop(); });
    own.run();
    return failures;
}

TEST(LoopChild, ForkChildStartsCleanAndNeverReturnsIntoTheCaller) {
    Pipe witness;
    WritesWhenDestroyed sentinel{witness.w.get()};

    // The parent blocks and ignores signals of its own; none of that may reach the child.
    sigset_t usr1;
    sigemptyset(&usr1);
    sigaddset(&usr1, SIGUSR1);
    sigset_t old_mask;
    ::pthread_sigmask(SIG_BLOCK, &usr1, &old_mask);
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    struct sigaction old_hup {};
    ::sigaction(SIGHUP, &ignore, &old_hup);

    std::map<pid_t, int> status;
    pid_t in_process = 0;
    pid_t exec_check = 0;
    pid_t thrower = 0;
    {
        Loop loop;
        auto on_exit = [&](pid_t pid, int st) {
            status[pid] = st;
            if (status.size() == 3) loop.stop();
        };
        in_process = loop.fork_child(check_clean_start);
        // A program run from the child sees no ignored and no blocked signal at all.
        exec_check = loop.fork_child([] {
            ::execl("/bin/sh", "sh", "-c",
                    "grep -Eq '^SigIgn:[[:space:]]*0+$' /proc/self/status && "
                    "grep -Eq '^SigBlk:[[:space:]]*0+$' /proc/self/status",
                    static_cast<char*>(nullptr));
            return 127;
        });
        thrower = loop.fork_child([]() -> int { throw std::runtime_error("body failed"); });
        for (pid_t pid : {in_process, exec_check, thrower}) {
            ASSERT_GT(pid, 0);
            ASSERT_NE(loop.watch_child(pid, on_exit), 0u);
        }
        loop.add_timer(10s, [&] { loop.stop(); });
        loop.run();
    }
    ::sigaction(SIGHUP, &old_hup, nullptr);
    ::pthread_sigmask(SIG_SETMASK, &old_mask, nullptr);

    ASSERT_EQ(status.size(), 3u);
    EXPECT_TRUE(WIFEXITED(status[in_process]) && WEXITSTATUS(status[in_process]) == 0)
        << "status " << status[in_process] << " (exit code bits: 1 dispositions, 2 mask, 4 current loop)";
    EXPECT_TRUE(WIFEXITED(status[exec_check]) && WEXITSTATUS(status[exec_check]) == 0)
        << "status " << status[exec_check];
    EXPECT_TRUE(WIFEXITED(status[thrower]) && WEXITSTATUS(status[thrower]) == Loop::kChildBodyThrew)
        << "status " << status[thrower];

    sentinel.fd = -1;
    witness.w.reset();
    EXPECT_EQ(witness.take(), "") << "a child ran the destructor of an object on the parent's stack";
}

}  // namespace
}  // namespace ubus

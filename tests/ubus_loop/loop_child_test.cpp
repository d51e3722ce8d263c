// Child processes and the loop.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <cerrno>
#include <map>
#include <stdexcept>

#include "child_process.hpp"
#include "pipe_text.hpp"
#include "poll.hpp"
#include "ubus/loop.hpp"

namespace ubus {
namespace {

using namespace std::chrono_literals;
using bus_test::Pipe;

// Watches children and runs the loop until all of them reported (bounded), collecting statuses.
struct Exits {
    explicit Exits(Loop& l) : loop(l) {}
    Loop& loop;
    std::map<pid_t, int> status;
    std::size_t expected = 0;
    void watch(pid_t pid) {
        ASSERT_GT(pid, 0);
        ++expected;
        ASSERT_NE(loop.watch_child(pid,
                                   [this](pid_t who, int st) {
                                       status[who] = st;
                                       if (status.size() == expected) loop.stop();
                                   }),
                  0u);
    }
    void run() {
        const Loop::Id stuck = loop.add_timer(10s, [this] { loop.stop(); });
        loop.run();
        loop.cancel_timer(stuck);
        EXPECT_EQ(status.size(), expected);
    }
    bool exited(pid_t pid, int code) { return bus_test::exit_code(status[pid]) == code; }
};

bool is_unreaped_child(pid_t pid) {
    siginfo_t info{};
    return ::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           info.si_pid == pid;
}

// Writes into a pipe when destroyed: shows whether a child unwound the parent's stack.
struct WritesWhenDestroyed {
    int fd;
    ~WritesWhenDestroyed() {
        if (fd >= 0) (void)!::write(fd, "d", 1);
    }
};

int check_clean_start() {
    int failures = 0;
    for (int sig : {SIGINT, SIGTERM, SIGCHLD, SIGPIPE, SIGHUP}) {
        struct sigaction sa {};
        ::sigaction(sig, nullptr, &sa);
        if (sa.sa_handler != SIG_DFL) failures |= 1;
    }
    sigset_t mask;
    ::sigprocmask(SIG_SETMASK, nullptr, &mask);
    for (int sig = 1; sig < 32; ++sig)
        if (sigismember(&mask, sig) == 1) failures |= 2;
    if (Loop::current() != nullptr) failures |= 4;
    Loop own;  // the child is free to run a loop of its own
    own.add_timer(0ms, [&own] { own.stop(); });
    own.run();
    return failures;
}

// Every child's status is reported from the loop, whether it ended before or after its watch;
// children of fork_child start clean and never return into the caller.
TEST(LoopChild, ExitStatusesAreReportedFromTheLoopAndForkChildStartsCleanAndNeverReturns) {
    Pipe witness;
    WritesWhenDestroyed sentinel{witness.w.get()};
    // The parent blocks and ignores signals of its own; none of that may reach the child.
    sigset_t usr1, old_mask;
    sigemptyset(&usr1);
    sigaddset(&usr1, SIGUSR1);
    ::pthread_sigmask(SIG_BLOCK, &usr1, &old_mask);
    struct sigaction ignore {
    }, old_hup{};
    ignore.sa_handler = SIG_IGN;
    ::sigaction(SIGHUP, &ignore, &old_hup);
    {
        Loop loop;
        const pid_t early = loop.fork_child([] { return 5; });
        const pid_t foreign = ::fork();  // any child, not only those of fork_child
        if (foreign == 0) ::_exit(6);
        for (pid_t pid : {early, foreign}) {
            siginfo_t info{};
            while (::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT) < 0 && errno == EINTR) {
            }
        }
        // Unwatched, the loop reaps them so that no zombie is left.
        const auto reaped = [&] {
            loop.add_timer(10ms, [&loop] { loop.stop(); });
            loop.run();
            return !is_unreaped_child(foreign);
        };
        EXPECT_TRUE(testsupport::poll_until(5s, reaped, 0ms)) << "an unwatched child was left as a zombie";
        Exits exits(loop);
        exits.watch(early);
        exits.watch(foreign);
        EXPECT_TRUE(exits.status.empty()) << "reported from inside watch_child, not from the loop";
        // Watched before they end and exiting together, several children may share one SIGCHLD.
        // A clean start exits 0 (else bits: 1 dispositions, 2 mask, 4 current loop).
        std::map<pid_t, int> codes{{early, 5}, {foreign, 6}};
        for (int code = 10; code < 16; ++code) codes[loop.fork_child([code] { return code; })] = code;
        codes[loop.fork_child([] { return ::kill(::getpid(), SIGKILL); })] = 128 + SIGKILL;
        codes[loop.fork_child(check_clean_start)] = 0;
        codes[loop.fork_child([]() -> int { throw std::runtime_error("body failed"); })] =
            Loop::kChildBodyThrew;
        for (auto [pid, code] : codes)
            if (pid != early && pid != foreign) exits.watch(pid);
        exits.run();
        for (auto [pid, code] : codes)
            EXPECT_TRUE(exits.exited(pid, code)) << code << ": " << exits.status[pid];
        // Process groups and processes that are not our children cannot be watched.
        for (pid_t pid : {0, -1, ::getppid()}) EXPECT_EQ(loop.watch_child(pid, [](pid_t, int) {}), 0u) << pid;
    }
    ::sigaction(SIGHUP, &old_hup, nullptr);
    ::pthread_sigmask(SIG_SETMASK, &old_mask, nullptr);
    sentinel.fd = -1;
    witness.w.reset();
    EXPECT_EQ(witness.take(), "") << "a child ran the destructor of an object on the parent's stack";
}

}  // namespace
}  // namespace ubus

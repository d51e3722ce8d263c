// The event loop: descriptor readiness, timers, child processes, and SIGINT/SIGTERM.
//
// One loop per process, run on one thread. Signals never run user code: SIGCHLD, SIGINT and
// SIGTERM are turned into loop events, and child exits are reported from the loop with the
// wait status. A forked child (fork_child) runs its body outside the loop and never touches it.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>

namespace ubus {

class Loop {
public:
    enum : std::uint32_t { kRead = 1, kWrite = 2, kError = 4 };  // kError: error or hang-up
    using FdCallback = std::function<void(std::uint32_t events)>;
    using TimerCallback = std::function<void()>;
    using ChildCallback = std::function<void(pid_t pid, int wait_status)>;
    using Id = std::uint64_t;  // 0 is never a valid id

    Loop();
    ~Loop();
    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;

    // Descriptor watch. The callback may add or remove any watch, its own included.
    Id add_fd(int fd, std::uint32_t events, FdCallback cb);
    bool modify_fd(Id id, std::uint32_t events);
    void remove_fd(Id id);

    // One-shot timer.
    Id add_timer(std::chrono::milliseconds after, TimerCallback cb);
    void cancel_timer(Id id);

    // Calls `cb` from the loop once `pid` (a child of this process) has exited and been reaped.
    // Children that nobody watches are reaped too, so they never linger as zombies.
    Id watch_child(pid_t pid, ChildCallback cb);
    void unwatch_child(Id id);

    // Forks. In the child: signal dispositions and mask are reset to their defaults, the
    // loop's own descriptors are closed, `body` runs, and the child ends with _exit(its result)
    // (no destructors or atexit handlers of the parent's objects run). In the parent: returns
    // the child's pid (or -1 when fork failed).
    pid_t fork_child(const std::function<int()>& body);

    // Runs until stop() or until SIGINT/SIGTERM arrives.
    void run();
    void stop();
    bool stopped_by_signal() const;

    // The loop currently running in this process (nullptr when none).
    static Loop* current();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace ubus

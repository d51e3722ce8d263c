// The event loop: descriptor readiness, timers, child processes, and SIGINT/SIGTERM.
//
// One loop per process (a second one aborts), run on one thread; other threads may exist but do
// not touch it. Signals never run user code: SIGCHLD, SIGINT and SIGTERM are turned into loop
// events, whichever thread takes them, and child exits are reported from the loop with the wait
// status. SIGPIPE is ignored while the loop exists. A forked child (fork_child) runs its body
// outside the loop and never touches it.
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
    static constexpr int kChildBodyThrew = 70;                   // exit code, as EX_SOFTWARE
    using FdCallback = std::function<void(std::uint32_t events)>;
    using TimerCallback = std::function<void()>;
    using ChildCallback = std::function<void(pid_t pid, int wait_status)>;
    using Id = std::uint64_t;  // 0 is never a valid id

    Loop();
    ~Loop();
    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;

    // Descriptor watch, level-triggered. `events` is kRead and/or kWrite; kError (EPOLLERR or
    // EPOLLHUP) is always reported, together with kRead while readable data remains. The callback
    // may add or remove any watch, its own included; a watch removed while its event is still
    // pending in the current batch is not called any more. Returns 0 when the descriptor cannot
    // be watched (errno tells why; one watch per descriptor). Remove the watch before closing.
    Id add_fd(int fd, std::uint32_t events, FdCallback cb);
    bool modify_fd(Id id, std::uint32_t events);
    void remove_fd(Id id);

    // One-shot timer on the monotonic clock. Timers fire in deadline order (equal deadlines in the
    // order they were added); a cancelled timer never fires.
    Id add_timer(std::chrono::milliseconds after, TimerCallback cb);
    void cancel_timer(Id id);

    // Calls `cb` from the loop once `pid` (a child of this process) has exited and been reaped,
    // never from inside watch_child itself. A child that exited before the watch was placed is
    // reported too. Children that nobody watches are reaped as well, so they never linger as
    // zombies. Returns 0 when `pid` is not (and was not recently) a child of this process.
    Id watch_child(pid_t pid, ChildCallback cb);
    void unwatch_child(Id id);

    // Forks. In the child: signal dispositions and mask are reset to their defaults, the
    // loop's own descriptors are closed, `body` runs, and the child ends with _exit(its result)
    // (no destructors or atexit handlers of the parent's objects run; stdio is flushed; a body
    // that throws ends the child with kChildBodyThrew). In the parent: returns the child's pid
    // (or -1 when fork failed). Watch the child with watch_child to learn its exit.
    pid_t fork_child(const std::function<int()>& body);

    // Runs until stop() or until SIGINT/SIGTERM arrives (also one that arrived before run()).
    // A callback may call run() again (e.g. to wait for a reply): stop() from inside the nested
    // run ends only that run; a signal ends every level.
    void run();
    // Ends the innermost run() once the current callback returns; called outside run(), the next
    // run() returns at once.
    void stop();
    // Whether the last outermost run() ended because of SIGINT or SIGTERM.
    bool stopped_by_signal() const;

    // The loop of this process (nullptr when none, and always inside a forked child).
    static Loop* current();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace ubus

#include "ubus/loop.hpp"

#include <signal.h>
#include <sys/epoll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <system_error>
#include <unordered_map>

#include "recent_exits.hpp"
#include "signal_relay.hpp"
#include "ubus/fd.hpp"

namespace ubus {

namespace {

using Clock = std::chrono::steady_clock;

constexpr Loop::Id kWakeId = 0;  // epoll tag of the signal pipe; never a valid id
constexpr int kNoStop = INT_MAX;
constexpr std::size_t kBatch = 64;

Loop* g_current = nullptr;

std::uint32_t to_epoll(std::uint32_t events) {
    return ((events & Loop::kRead) ? EPOLLIN : 0u) | ((events & Loop::kWrite) ? EPOLLOUT : 0u);
}

std::uint32_t from_epoll(std::uint32_t got, std::uint32_t interest) {
    std::uint32_t out = 0;
    if ((got & EPOLLIN) && (interest & Loop::kRead)) out |= Loop::kRead;
    if ((got & EPOLLOUT) && (interest & Loop::kWrite)) out |= Loop::kWrite;
    if (got & (EPOLLERR | EPOLLHUP)) out |= Loop::kError;
    return out;
}

int milliseconds_until(Clock::time_point deadline, Clock::time_point now) {
    if (deadline <= now) return 0;
    // Round up: waking a little early would only spin once more without firing anything.
    const auto ms = std::chrono::ceil<std::chrono::milliseconds>(deadline - now).count();
    return static_cast<int>(std::min<decltype(ms)>(ms, INT_MAX));
}

}  // namespace

struct Loop::Impl {
    struct Watch {
        int fd;
        std::uint32_t events;
        FdCallback cb;
        int active_calls = 0;  // > 0 while its callback runs (nested runs may re-enter it)
        bool removed = false;  // removed during its own callback; erased when that returns
    };

    struct TimerKey {
        Clock::time_point deadline;
        Id id;  // ids grow, so equal deadlines fire in the order they were added
        auto operator<=>(const TimerKey&) const = default;
    };

    struct ChildWatch {
        pid_t pid;
        ChildCallback cb;
        bool exited = false;
        int wait_status = 0;
    };

    // Keeps a watch alive (and its callback in place) while the callback runs, even if it throws.
    struct CallScope {
        explicit CallScope(Watch& w) : watch(w) { ++watch.active_calls; }
        ~CallScope() { --watch.active_calls; }
        CallScope(const CallScope&) = delete;
        CallScope& operator=(const CallScope&) = delete;
        Watch& watch;
    };

    UniqueFd epoll;
    SignalRelay signals;
    Id next_id = 1;

    std::unordered_map<Id, Watch> watches;  // node-based: references survive inserts
    std::unordered_map<int, Id> watch_by_fd;

    std::map<TimerKey, TimerCallback> timers;
    std::unordered_map<Id, Clock::time_point> timer_deadlines;

    std::map<Id, ChildWatch> child_watches;
    std::deque<Id> exited_watches;  // watches whose child has exited, in the order to report
    RecentExits recent_exits;

    int depth = 0;          // nesting level of run()
    int stop_at = kNoStop;  // runs at this depth and deeper end
    bool stopped_by_signal = false;
    std::deque<std::array<epoll_event, kBatch>> event_buffers;  // one per depth, kept for reuse

    Impl() : epoll(::epoll_create1(EPOLL_CLOEXEC)) {
        if (!epoll) throw std::system_error(errno, std::generic_category(), "epoll_create1");
        epoll_event ev{};
        ev.events = EPOLLIN;
        ev.data.u64 = kWakeId;
        if (::epoll_ctl(epoll.get(), EPOLL_CTL_ADD, signals.wake_fd(), &ev) < 0) {
            throw std::system_error(errno, std::generic_category(), "epoll_ctl");
        }
    }

    bool should_stop() const { return stopped_by_signal || depth >= stop_at; }

    int wait_timeout_ms() const {
        if (!exited_watches.empty()) return 0;
        if (timers.empty()) return -1;
        return milliseconds_until(timers.begin()->first.deadline, Clock::now());
    }

    void unregister(Id id, int fd) {
        // If the descriptor was closed first and its number reused by a newer watch, the kernel
        // has already dropped this registration; deleting by number would drop the newer one.
        const auto owner = watch_by_fd.find(fd);
        if (owner == watch_by_fd.end() || owner->second != id) return;
        ::epoll_ctl(epoll.get(), EPOLL_CTL_DEL, fd, nullptr);
        watch_by_fd.erase(owner);
    }

    void dispatch_fd_events(const epoll_event* events, int count) {
        for (int i = 0; i < count && !should_stop(); ++i) {
            const Id id = events[i].data.u64;
            if (id == kWakeId) {
                take_signals();
                continue;
            }
            // Looked up by id, not by descriptor: a watch removed earlier in this batch is gone,
            // even if its descriptor number was reused by a new watch meanwhile.
            const auto it = watches.find(id);
            if (it == watches.end() || it->second.removed) continue;
            Watch& w = it->second;
            const std::uint32_t got = from_epoll(events[i].events, w.events);
            if (got == 0) continue;
            {
                CallScope scope(w);
                w.cb(got);
            }
            if (w.removed && w.active_calls == 0) watches.erase(id);
        }
    }

    void take_signals() {
        const SignalRelay::Pending p = signals.take();
        if (p.child_exited) reap_children();
        if (p.stop_signal != 0) stopped_by_signal = true;
    }

    void reap_children() {
        for (;;) {
            int status = 0;
            const pid_t pid = ::waitpid(-1, &status, WNOHANG);
            if (pid > 0) {
                child_reaped(pid, status);
            } else if (pid < 0 && errno == EINTR) {
                continue;
            } else {
                break;
            }
        }
    }

    void child_reaped(pid_t pid, int status) {
        recent_exits.record(pid, status);
        for (auto& [id, w] : child_watches) {
            if (w.pid == pid && !w.exited) mark_exited(id, w, status);
        }
    }

    void mark_exited(Id id, ChildWatch& w, int status) {
        w.exited = true;
        w.wait_status = status;
        exited_watches.push_back(id);
    }

    void fire_due_timers() {
        const auto now = Clock::now();
        // Timers added by these callbacks wait for the next round, so a callback that keeps
        // re-arming a zero-delay timer cannot starve the descriptors.
        const Id newest = next_id - 1;
        while (!should_stop() && !timers.empty()) {
            const auto it = timers.begin();
            if (it->first.deadline > now || it->first.id > newest) break;
            TimerCallback cb = std::move(it->second);
            timer_deadlines.erase(it->first.id);
            timers.erase(it);
            cb();
        }
    }

    void report_exited_children() {
        while (!should_stop() && !exited_watches.empty()) {
            const Id id = exited_watches.front();
            exited_watches.pop_front();
            const auto it = child_watches.find(id);
            if (it == child_watches.end()) continue;  // unwatched meanwhile
            ChildWatch w = std::move(it->second);
            child_watches.erase(it);
            w.cb(w.pid, w.wait_status);
        }
    }
};

namespace {

// Signal dispositions and the wake-up pipe are process-wide: two loops would steal each other's
// signals and children.
void ensure_no_other_loop() {
    if (g_current != nullptr) {
        std::fputs("ubus::Loop: a second loop in one process\n", stderr);
        std::abort();
    }
}

int run_child_body(const std::function<int()>& body) {
    try {
        return body();
    } catch (...) {
        return Loop::kChildBodyThrew;
    }
}

}  // namespace

Loop::Loop() {
    ensure_no_other_loop();
    impl_ = std::make_unique<Impl>();
    g_current = this;
}

Loop::~Loop() {
    if (g_current == this) g_current = nullptr;
}

Loop* Loop::current() {
    return g_current;
}

Loop::Id Loop::add_fd(int fd, std::uint32_t events, FdCallback cb) {
    Impl& s = *impl_;
    if (fd < 0 || !cb) {
        errno = EINVAL;
        return 0;
    }
    const Id id = s.next_id;
    epoll_event ev{};
    ev.events = to_epoll(events);
    ev.data.u64 = id;
    if (::epoll_ctl(s.epoll.get(), EPOLL_CTL_ADD, fd, &ev) < 0) return 0;
    ++s.next_id;
    s.watches.emplace(id, Impl::Watch{fd, events, std::move(cb)});
    s.watch_by_fd[fd] = id;
    return id;
}

bool Loop::modify_fd(Id id, std::uint32_t events) {
    Impl& s = *impl_;
    const auto it = s.watches.find(id);
    if (it == s.watches.end() || it->second.removed) return false;
    epoll_event ev{};
    ev.events = to_epoll(events);
    ev.data.u64 = id;
    if (::epoll_ctl(s.epoll.get(), EPOLL_CTL_MOD, it->second.fd, &ev) < 0) return false;
    it->second.events = events;
    return true;
}

void Loop::remove_fd(Id id) {
    Impl& s = *impl_;
    const auto it = s.watches.find(id);
    if (it == s.watches.end() || it->second.removed) return;
    s.unregister(id, it->second.fd);
    if (it->second.active_calls > 0) {
        it->second.removed = true;  // its callback is running: erased once that returns
    } else {
        s.watches.erase(it);
    }
}

Loop::Id Loop::add_timer(std::chrono::milliseconds after, TimerCallback cb) {
    Impl& s = *impl_;
    if (!cb) return 0;
    const Id id = s.next_id++;
    const auto deadline = Clock::now() + std::max(after, std::chrono::milliseconds(0));
    s.timers.emplace(Impl::TimerKey{deadline, id}, std::move(cb));
    s.timer_deadlines.emplace(id, deadline);
    return id;
}

void Loop::cancel_timer(Id id) {
    Impl& s = *impl_;
    const auto it = s.timer_deadlines.find(id);
    if (it == s.timer_deadlines.end()) return;
    s.timers.erase(Impl::TimerKey{it->second, id});
    s.timer_deadlines.erase(it);
}

Loop::Id Loop::watch_child(pid_t pid, ChildCallback cb) {
    Impl& s = *impl_;
    // pid <= 0 would make waitpid() wait for process groups and reap children of other watches.
    if (pid <= 0 || !cb) return 0;

    int status = 0;
    pid_t got;
    do {
        got = ::waitpid(pid, &status, WNOHANG);
    } while (got < 0 && errno == EINTR);
    const std::optional<int> earlier = got < 0 ? s.recent_exits.find(pid) : std::nullopt;
    if (got < 0 && !earlier) return 0;  // not our child, or reaped too long ago

    const Id id = s.next_id++;
    auto& w = s.child_watches.emplace(id, Impl::ChildWatch{pid, std::move(cb)}).first->second;
    if (got == pid) {
        s.child_reaped(pid, status);  // ended just now: every watch of it learns
    } else if (got == 0) {
        s.recent_exits.forget(pid);  // running: anything recorded belongs to an earlier process
    } else {
        s.mark_exited(id, w, *earlier);
    }
    return id;
}

void Loop::unwatch_child(Id id) {
    impl_->child_watches.erase(id);
}

pid_t Loop::fork_child(const std::function<int()>& body) {
    Impl& s = *impl_;
    // Output buffered so far must not be written twice, by the parent and again by the child.
    std::fflush(nullptr);
    // Signals stay blocked across fork until the child has reset its dispositions: a signal taken
    // in between would run the parent's handler in the child and wake the parent's loop.
    sigset_t all;
    sigset_t saved;
    sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &saved);
    const pid_t pid = ::fork();
    if (pid == 0) {
        g_current = nullptr;
        s.epoll.reset();
        s.signals.detach_in_child();
        const int code = run_child_body(body);
        std::fflush(nullptr);
        ::_exit(code);
    }
    const int fork_errno = errno;
    ::pthread_sigmask(SIG_SETMASK, &saved, nullptr);
    errno = fork_errno;
    return pid;
}

void Loop::run() {
    Impl& s = *impl_;
    if (s.depth == 0) s.stopped_by_signal = false;
    struct DepthScope {
        explicit DepthScope(Impl& i) : impl(i) { ++impl.depth; }
        ~DepthScope() {
            if (impl.stop_at >= impl.depth) impl.stop_at = kNoStop;
            --impl.depth;
        }
        DepthScope(const DepthScope&) = delete;
        DepthScope& operator=(const DepthScope&) = delete;
        Impl& impl;
    } scope(s);

    if (s.event_buffers.size() < static_cast<std::size_t>(s.depth)) s.event_buffers.emplace_back();
    epoll_event* const events = s.event_buffers[s.depth - 1].data();

    while (!s.should_stop()) {
        const int n = ::epoll_wait(s.epoll.get(), events, static_cast<int>(kBatch), s.wait_timeout_ms());
        if (n < 0) {
            if (errno == EINTR) continue;
            std::perror("ubus::Loop: epoll_wait");
            return;
        }
        s.dispatch_fd_events(events, n);
        s.fire_due_timers();
        s.report_exited_children();
    }
}

void Loop::stop() {
    Impl& s = *impl_;
    s.stop_at = std::min(s.stop_at, std::max(s.depth, 1));
}

bool Loop::stopped_by_signal() const {
    return impl_->stopped_by_signal;
}

}  // namespace ubus

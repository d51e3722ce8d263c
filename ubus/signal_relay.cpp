#include "signal_relay.hpp"

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <system_error>

namespace ubus {

namespace {

// The handlers' whole world: plain lock-free atomics, no pointers into objects.
static_assert(std::atomic<int>::is_always_lock_free && std::atomic<bool>::is_always_lock_free);
std::atomic<int> g_wake_fd{-1};
std::atomic<bool> g_child_exited{false};
std::atomic<int> g_stop_signal{0};
// Handlers currently running on some thread; the relay waits for them before closing the pipe,
// so a late handler never writes into a descriptor number that has been reused meanwhile.
std::atomic<int> g_handlers_running{0};

void on_signal(int sig) {
    g_handlers_running.fetch_add(1);
    const int saved_errno = errno;
    if (sig == SIGCHLD) {
        g_child_exited.store(true);
    } else {
        g_stop_signal.store(sig);
    }
    // The flag is set before the byte is written: the loop drains first and reads flags second,
    // so it never sees the byte without the flag. A full pipe means a wake-up is pending anyway.
    if (const int fd = g_wake_fd.load(); fd >= 0) {
        const char byte = 0;
        [[maybe_unused]] const ssize_t n = ::write(fd, &byte, 1);
    }
    errno = saved_errno;
    g_handlers_running.fetch_sub(1);
}

void install(int sig, void (*handler)(int), struct sigaction* old) {
    struct sigaction sa {};
    sa.sa_handler = handler;
    sigemptyset(&sa.sa_mask);
    // SA_RESTART: other threads' blocking calls are not disturbed by our handlers.
    sa.sa_flags = SA_RESTART | (sig == SIGCHLD ? SA_NOCLDSTOP : 0);
    ::sigaction(sig, &sa, old);
}

}  // namespace

SignalRelay::SignalRelay() {
    int fds[2];
    if (::pipe2(fds, O_NONBLOCK | O_CLOEXEC) < 0) {
        throw std::system_error(errno, std::generic_category(), "signal pipe");
    }
    read_end_.reset(fds[0]);
    write_end_.reset(fds[1]);

    g_stop_signal.store(0);
    g_child_exited.store(true);
    g_wake_fd.store(write_end_.get());
    const char byte = 0;
    [[maybe_unused]] const ssize_t n = ::write(write_end_.get(), &byte, 1);

    install(SIGINT, on_signal, &old_int_);
    install(SIGTERM, on_signal, &old_term_);
    install(SIGCHLD, on_signal, &old_chld_);
    install(SIGPIPE, SIG_IGN, &old_pipe_);
}

SignalRelay::~SignalRelay() {
    if (!write_end_) return;  // detached in a child
    ::sigaction(SIGINT, &old_int_, nullptr);
    ::sigaction(SIGTERM, &old_term_, nullptr);
    ::sigaction(SIGCHLD, &old_chld_, nullptr);
    ::sigaction(SIGPIPE, &old_pipe_, nullptr);
    g_wake_fd.store(-1);
    while (g_handlers_running.load() != 0) sched_yield();
}

SignalRelay::Pending SignalRelay::take() {
    char buf[64];
    while (::read(read_end_.get(), buf, sizeof buf) > 0) {
    }
    Pending p;
    p.child_exited = g_child_exited.exchange(false);
    p.stop_signal = g_stop_signal.exchange(0);
    return p;
}

void SignalRelay::detach_in_child() {
    g_wake_fd.store(-1);
    g_child_exited.store(false);
    g_stop_signal.store(0);
    // A handler that was running on another thread at the fork never finishes here (the thread
    // does not exist in the child); a loop the child creates must not wait for it.
    g_handlers_running.store(0);
    // Every handler the parent installed (ours or anyone's) would run the parent's code in the
    // child, and ignored signals stay ignored across exec: start all of them from the default.
    struct sigaction dfl {};
    dfl.sa_handler = SIG_DFL;
    sigemptyset(&dfl.sa_mask);
    for (int sig = 1; sig < SIGRTMIN; ++sig) {
        if (sig != SIGKILL && sig != SIGSTOP) ::sigaction(sig, &dfl, nullptr);
    }
    read_end_.reset();
    write_end_.reset();
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
}

}  // namespace ubus

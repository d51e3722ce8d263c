// Turns SIGINT, SIGTERM and SIGCHLD into readiness of a pipe that the event loop watches.
//
// The handlers only set a flag and write one byte (both async-signal-safe), so no other code ever
// runs inside a handler. Whichever thread the kernel picks to take a signal, the byte wakes the
// loop. SIGPIPE is ignored while the relay exists: a peer that went away shows up as EPIPE.
#pragma once

#include <signal.h>

#include "ubus/fd.hpp"

namespace ubus {

class SignalRelay {
public:
    struct Pending {
        bool child_exited = false;  // SIGCHLD arrived: reap
        int stop_signal = 0;        // SIGINT or SIGTERM arrived (0: neither)
    };

    // Throws std::system_error when the pipe cannot be created. Only one relay may exist at a
    // time (the caller guarantees it). The first take() always reports child_exited, so children
    // that ended before the relay existed are reaped too.
    SignalRelay();
    // Restores the dispositions found at construction.
    ~SignalRelay();
    SignalRelay(const SignalRelay&) = delete;
    SignalRelay& operator=(const SignalRelay&) = delete;

    // Readable whenever something is pending.
    int wake_fd() const { return read_end_.get(); }

    // Drains the pipe and returns what arrived since the last call.
    Pending take();

    // For a freshly forked child (signals still blocked): lets go of the parent's pipe, puts every
    // signal back to its default disposition and unblocks all signals, so that nothing the child
    // inherited can wake the parent's loop, and programs it executes start from a clean state.
    void detach_in_child();

private:
    UniqueFd read_end_;
    UniqueFd write_end_;
    struct sigaction old_int_ {};
    struct sigaction old_term_ {};
    struct sigaction old_chld_ {};
    struct sigaction old_pipe_ {};
};

}  // namespace ubus

// Programs run as children of a test, and scratch directories, both gone when the test is.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "sandbox/process.hpp"
#include "temp_dir.hpp"
#include "ubus/fd.hpp"

namespace bus_test {

class Child {
public:
    // Runs `program` with `argv` (argv[0] included) in `dir`. With `capture`, its stdout and
    // stderr go to pipes that wait() empties into out and err (enough for a few pages of text).
    Child(const std::string& program, const std::vector<std::string>& argv, const std::string& dir = ".",
          bool capture = false);
    ~Child();  // kills the child if it still runs
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    pid_t pid() const { return pid_; }
    bool ended() const;  // it exited and waits to be waited for
    // The wait status; -1 when already waited for.
    int wait();
    int stop(int signal);  // sends `signal`, then wait()
    // True once the child sleeps in epoll_wait, that is, in its event loop with whatever it waits
    // for registered (its own requests wait with poll). False if it ends or takes too long.
    bool wait_until_serving(int timeout_ms = 10000) const;

    std::string out, err;

private:
    pid_t pid_ = -1;
    ubus::UniqueFd out_pipe_, err_pipe_;
};

// Runs `body` in a forked child of this process and waits for it: the value it returned, 1 when it
// threw. For what only another process can do (act as another user, use what a fork inherits).
int run_forked(const std::function<int()>& body);

// The exit code, or 128 + the signal that ended it.
inline int exit_code(int wait_status) {
    return sandbox::shell_exit_code(wait_status);
}

}  // namespace bus_test

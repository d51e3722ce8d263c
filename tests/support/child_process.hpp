// Programs run as children of a test, and scratch directories, both gone when the test is.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "ubus/fd.hpp"

namespace bus_test {

// A fresh directory under $TMPDIR (or /tmp), removed with everything in it when destroyed.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

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

// The exit code, or 128 + the signal that ended it.
int exit_code(int wait_status);

}  // namespace bus_test

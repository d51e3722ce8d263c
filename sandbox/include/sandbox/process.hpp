// Starting programs: fork, optional chroot, descriptor plumbing, exec, with the failure of any step
// reported to the caller as text (never as a silently dying child). Safe to call from a process
// with other threads: the child runs only async-signal-safe code between fork and exec.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace sandbox {

struct Credentials {
    uid_t uid = 0;
    gid_t gid = 0;
};

struct SpawnSpec {
    std::vector<std::string> argv;     // argv[0] without '/' is looked up in `search_path`
    std::vector<std::string> env;      // the complete environment
    std::string search_path;           // as seen after the chroot, when there is one
    std::filesystem::path chroot_dir;  // empty: no chroot
    std::filesystem::path cwd;         // empty: "/" after a chroot, else unchanged
    int stdin_fd = -1;                 // -1: inherited
    int stdout_fd = -1;
    int stderr_fd = -1;
    std::vector<std::pair<int, int>> extra_fds;  // (descriptor here, number in the child)
    int death_signal = 0;                        // sent to the child when its parent dies (0: none)
    int report_pid_fd = -1;                      // the child writes its own pid (decimal) here before exec
    bool new_session = false;
    std::optional<Credentials> user;  // switch to this user (and no supplementary groups)
};

struct Spawned {
    pid_t pid = -1;
    std::string error;  // why the program could not be started
    explicit operator bool() const { return pid > 0; }
};

// Every descriptor of the caller other than those the request names is closed in the child.
Spawned spawn(const SpawnSpec& spec);

struct CommandResult {
    int exit_code = -1;  // 128 + signal number when killed, as a shell reports it; -1 if never ran
    std::string out;
    std::string err;
    bool timed_out = false;
    bool ok() const { return exit_code == 0 && !timed_out; }
};

// Runs the program with stdin from /dev/null and both output streams captured. Returns once the
// program has exited (its output read so far, even when background children keep the streams
// open), or kills it when `timeout` passes.
CommandResult run_command(SpawnSpec spec, std::chrono::milliseconds timeout);

// Exit code as a shell reports it: the status, or 128 + the signal that ended the process.
int shell_exit_code(int wait_status);

// Waits at most `timeout` for `pid` (a child) to end; its wait status, or nothing on time-out.
std::optional<int> wait_for_exit(pid_t pid, std::chrono::milliseconds timeout);

// SIGTERM, then SIGKILL when `grace` passes; always reaps. Returns the wait status.
int terminate_and_reap(pid_t pid, std::chrono::milliseconds grace);

// The current environment with `overrides` ("NAME=VALUE") replacing or adding variables and the
// names in `removed` dropped.
std::vector<std::string> environment_with(const std::vector<std::string>& overrides,
                                          const std::vector<std::string>& removed = {});

}  // namespace sandbox

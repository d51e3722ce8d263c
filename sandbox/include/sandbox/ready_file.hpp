// The file by which a running sandbox announces itself: the host pid of its PID 1 and that
// process's start time, so that a stale file (left by a killed launcher) is never mistaken for a
// live sandbox even when the pid has been reused.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <optional>

#include "sandbox/status.hpp"

namespace sandbox {

struct ReadyInfo {
    pid_t init_pid = 0;                 // as seen on the host
    unsigned long long start_time = 0;  // in clock ticks since boot, from /proc/<pid>/stat
};

// The start time of a process, or nothing when it does not exist.
std::optional<unsigned long long> process_start_time(pid_t pid);

Status write_ready_file(const std::filesystem::path& root, pid_t init_pid);
void remove_ready_file(const std::filesystem::path& root);

// The sandbox at `root` when it is running; nothing when it is not (or never was).
std::optional<ReadyInfo> running_sandbox(const std::filesystem::path& root);

}  // namespace sandbox

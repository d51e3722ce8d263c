#include "sandbox/process.hpp"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <thread>

#include "sandbox/status.hpp"
#include "ubus/fd.hpp"

extern char** environ;

namespace sandbox {
namespace {

using ubus::UniqueFd;
using Clock = std::chrono::steady_clock;

// What went wrong in the child before the program ran, sent back over a close-on-exec pipe.
enum class Stage : int { kCredentials = 1, kChroot, kChdir, kExec };
struct ChildFailure {
    Stage stage;
    int err;
};

// Everything the child needs, prepared before fork so the child allocates nothing.
struct ChildPlan {
    std::vector<std::string> candidates;  // program paths to try, in order
    std::vector<char*> argv;
    std::vector<char*> envp;
    const char* chroot_dir = nullptr;
    const char* cwd = nullptr;
    std::vector<std::pair<int, int>> fds;  // (source, target), stdio first
    int death_signal = 0;
    int report_pid_fd = -1;
    bool new_session = false;
    std::optional<Credentials> user;
    pid_t parent = 0;
};

std::vector<char*> c_strings(const std::vector<std::string>& strings) {
    std::vector<char*> out;
    out.reserve(strings.size() + 1);
    for (const auto& s : strings) out.push_back(const_cast<char*>(s.c_str()));
    out.push_back(nullptr);
    return out;
}

std::vector<std::string> program_candidates(const std::string& program, std::string_view search_path) {
    if (program.find('/') != std::string::npos || search_path.empty()) return {program};
    std::vector<std::string> out;
    while (true) {
        auto colon = search_path.find(':');
        std::string_view dir = search_path.substr(0, colon);
        out.push_back(std::string(dir.empty() ? "." : dir) + "/" + program);
        if (colon == std::string_view::npos) break;
        search_path.remove_prefix(colon + 1);
    }
    return out;
}

void write_all(int fd, const void* data, std::size_t len) {
    auto p = static_cast<const char*>(data);
    while (len > 0) {
        ssize_t n = ::write(fd, p, len);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        p += n;
        len -= static_cast<std::size_t>(n);
    }
}

[[noreturn]] void child_fail(int report_fd, Stage stage, int err) {
    ChildFailure failure{stage, err};
    write_all(report_fd, &failure, sizeof failure);
    _exit(127);
}

// Runs between fork and exec: async-signal-safe calls only.
[[noreturn]] void run_child(const ChildPlan& plan, int failure_fd) {
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    struct sigaction dfl {};
    dfl.sa_handler = SIG_DFL;
    for (int sig = 1; sig < NSIG; ++sig) {
        if (sig != SIGKILL && sig != SIGSTOP) sigaction(sig, &dfl, nullptr);
    }
    if (plan.new_session) setsid();
    if (plan.user) {
        if (setgroups(0, nullptr) != 0 || setresgid(plan.user->gid, plan.user->gid, plan.user->gid) != 0 ||
            setresuid(plan.user->uid, plan.user->uid, plan.user->uid) != 0) {
            child_fail(failure_fd, Stage::kCredentials, errno);
        }
    }
    // After the change of user, which would clear it.
    if (plan.death_signal != 0) {
        prctl(PR_SET_PDEATHSIG, plan.death_signal);
        // The parent may have died before the request took effect. A parent in another PID
        // namespace shows as 0 here, which is the normal case for a child that entered one.
        pid_t now = getppid();
        if (now != plan.parent && now != 0) _exit(127);
    }
    if (plan.report_pid_fd >= 0) {
        char digits[16];
        int n = 0;
        for (pid_t v = getpid(); v > 0 && n < 15; v /= 10) digits[n++] = static_cast<char>('0' + v % 10);
        std::reverse(digits, digits + n);
        digits[n++] = '\n';
        write_all(plan.report_pid_fd, digits, static_cast<std::size_t>(n));
    }

    // Lift every source (and the failure pipe) above the highest target, so that placing one
    // descriptor never overwrites another that is still to be placed.
    int highest = 2;
    for (const auto& [src, dst] : plan.fds) highest = std::max(highest, dst);
    failure_fd = fcntl(failure_fd, F_DUPFD_CLOEXEC, highest + 1);
    std::array<int, 64> lifted{};
    std::size_t count = std::min(plan.fds.size(), lifted.size());
    for (std::size_t i = 0; i < count; ++i) {
        lifted[i] = fcntl(plan.fds[i].first, F_DUPFD_CLOEXEC, highest + 1);
    }
    for (std::size_t i = 0; i < count; ++i) {
        if (lifted[i] >= 0) dup2(lifted[i], plan.fds[i].second);
    }
    for (int fd = 3; fd <= highest; ++fd) {
        bool target = false;
        for (std::size_t i = 0; i < count; ++i) target = target || plan.fds[i].second == fd;
        if (!target) fcntl(fd, F_SETFD, FD_CLOEXEC);
    }
    close_range(static_cast<unsigned>(highest) + 1, UINT_MAX, CLOSE_RANGE_CLOEXEC);

    if (plan.chroot_dir != nullptr && chroot(plan.chroot_dir) != 0)
        child_fail(failure_fd, Stage::kChroot, errno);
    if (plan.cwd != nullptr && chdir(plan.cwd) != 0) child_fail(failure_fd, Stage::kChdir, errno);
    int err = ENOENT;
    for (const auto& candidate : plan.candidates) {
        execve(candidate.c_str(), plan.argv.data(), plan.envp.data());
        if (errno != ENOENT && errno != ENOTDIR && err == ENOENT) err = errno;
    }
    child_fail(failure_fd, Stage::kExec, err);
}

std::string describe_failure(const SpawnSpec& spec, const ChildFailure& failure) {
    switch (failure.stage) {
        case Stage::kCredentials:
            return system_error("cannot switch to user " + std::to_string(spec.user->uid), failure.err);
        case Stage::kChroot:
            return system_error("cannot change root to " + spec.chroot_dir.string(), failure.err);
        case Stage::kChdir:
            return system_error("cannot change directory to " + spec.cwd.string(), failure.err);
        case Stage::kExec:
            break;
    }
    return system_error("cannot run " + spec.argv.front(), failure.err);
}

// A descriptor that becomes readable when `pid` ends (glibc's own wrapper lacks C linkage in its
// header on some versions, so call the kernel directly). Invalid on kernels without it.
UniqueFd exit_descriptor(pid_t pid) {
    return UniqueFd(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
}

void set_nonblocking(int fd) {
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
}

// Appends what can be read now; returns false at end of stream or on error.
bool read_available(int fd, std::string& out) {
    char buf[8192];
    while (true) {
        ssize_t n = ::read(fd, buf, sizeof buf);
        if (n > 0) {
            out.append(buf, static_cast<std::size_t>(n));
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        return n < 0 && errno == EAGAIN;
    }
}

int remaining_ms(Clock::time_point deadline) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return static_cast<int>(std::clamp<long long>(left, 0, INT_MAX));
}

}  // namespace

Spawned spawn(const SpawnSpec& spec) {
    Spawned result;
    if (spec.argv.empty() || spec.argv.front().empty()) {
        result.error = "no program given";
        return result;
    }
    ChildPlan plan;
    plan.candidates = program_candidates(spec.argv.front(), spec.search_path);
    plan.argv = c_strings(spec.argv);
    plan.envp = c_strings(spec.env);
    std::string chroot_dir = spec.chroot_dir.string();
    std::string cwd = spec.cwd.string();
    if (!chroot_dir.empty()) plan.chroot_dir = chroot_dir.c_str();
    if (!cwd.empty()) {
        plan.cwd = cwd.c_str();
    } else if (plan.chroot_dir != nullptr) {
        plan.cwd = "/";
    }
    if (spec.stdin_fd >= 0) plan.fds.emplace_back(spec.stdin_fd, 0);
    if (spec.stdout_fd >= 0) plan.fds.emplace_back(spec.stdout_fd, 1);
    if (spec.stderr_fd >= 0) plan.fds.emplace_back(spec.stderr_fd, 2);
    plan.fds.insert(plan.fds.end(), spec.extra_fds.begin(), spec.extra_fds.end());
    if (plan.fds.size() > 64) {
        result.error = "too many descriptors to pass";
        return result;
    }
    plan.death_signal = spec.death_signal;
    plan.report_pid_fd = spec.report_pid_fd;
    plan.new_session = spec.new_session;
    plan.user = spec.user;
    plan.parent = getpid();

    int failure_pipe[2];
    if (pipe2(failure_pipe, O_CLOEXEC) != 0) {
        result.error = system_error("pipe", errno);
        return result;
    }
    UniqueFd failure_read(failure_pipe[0]);
    UniqueFd failure_write(failure_pipe[1]);
    pid_t pid = fork();
    if (pid < 0) {
        result.error = system_error("fork", errno);
        return result;
    }
    if (pid == 0) run_child(plan, failure_write.get());
    failure_write.reset();

    ChildFailure failure{};
    ssize_t n;
    do {
        n = ::read(failure_read.get(), &failure, sizeof failure);
    } while (n < 0 && errno == EINTR);
    if (n == static_cast<ssize_t>(sizeof failure)) {
        waitpid(pid, nullptr, 0);
        result.error = describe_failure(spec, failure);
        return result;
    }
    result.pid = pid;
    return result;
}

CommandResult run_command(SpawnSpec spec, std::chrono::milliseconds timeout) {
    CommandResult result;
    UniqueFd null_in(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    int out_pipe[2], err_pipe[2];
    if (pipe2(out_pipe, O_CLOEXEC) != 0) {
        result.err = system_error("pipe", errno);
        return result;
    }
    UniqueFd out_read(out_pipe[0]), out_write(out_pipe[1]);
    if (pipe2(err_pipe, O_CLOEXEC) != 0) {
        result.err = system_error("pipe", errno);
        return result;
    }
    UniqueFd err_read(err_pipe[0]), err_write(err_pipe[1]);
    set_nonblocking(out_read.get());
    set_nonblocking(err_read.get());
    spec.stdin_fd = null_in.get();
    spec.stdout_fd = out_write.get();
    spec.stderr_fd = err_write.get();

    Spawned child = spawn(spec);
    out_write.reset();
    err_write.reset();
    if (!child) {
        result.err = child.error;
        return result;
    }
    UniqueFd exit_fd = exit_descriptor(child.pid);
    const auto deadline = Clock::now() + timeout;
    bool out_open = true, err_open = true;
    while (true) {
        std::array<pollfd, 3> fds{{{out_open ? out_read.get() : -1, POLLIN, 0},
                                   {err_open ? err_read.get() : -1, POLLIN, 0},
                                   {exit_fd.get(), POLLIN, 0}}};
        // Without a process descriptor, look for the exit every few milliseconds.
        int wait_ms = exit_fd ? remaining_ms(deadline) : std::min(remaining_ms(deadline), 5);
        poll(fds.data(), fds.size(), wait_ms);
        if (out_open && fds[0].revents != 0) out_open = read_available(out_read.get(), result.out);
        if (err_open && fds[1].revents != 0) err_open = read_available(err_read.get(), result.err);
        int status = 0;
        if (waitpid(child.pid, &status, WNOHANG) == child.pid) {
            // Background children of the program may hold the streams open: take what is there.
            if (out_open) read_available(out_read.get(), result.out);
            if (err_open) read_available(err_read.get(), result.err);
            result.exit_code = shell_exit_code(status);
            return result;
        }
        if (Clock::now() >= deadline) {
            kill(child.pid, SIGKILL);
            waitpid(child.pid, &status, 0);
            result.timed_out = true;
            result.exit_code = shell_exit_code(status);
            return result;
        }
    }
}

int shell_exit_code(int wait_status) {
    if (WIFEXITED(wait_status)) return WEXITSTATUS(wait_status);
    if (WIFSIGNALED(wait_status)) return 128 + WTERMSIG(wait_status);
    return -1;
}

std::optional<int> wait_for_exit(pid_t pid, std::chrono::milliseconds timeout) {
    UniqueFd exit_fd = exit_descriptor(pid);
    const auto deadline = Clock::now() + timeout;
    while (true) {
        int status = 0;
        pid_t r = waitpid(pid, &status, WNOHANG);
        if (r == pid) return status;
        if (r < 0 && errno != EINTR) return std::nullopt;  // not our child (any more)
        int left = remaining_ms(deadline);
        if (left == 0) return std::nullopt;
        if (exit_fd) {
            pollfd p{exit_fd.get(), POLLIN, 0};
            poll(&p, 1, left);
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(std::min(left, 5)));
        }
    }
}

int terminate_and_reap(pid_t pid, std::chrono::milliseconds grace) {
    kill(pid, SIGTERM);
    if (auto status = wait_for_exit(pid, grace)) return *status;
    kill(pid, SIGKILL);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

std::vector<std::string> environment_with(const std::vector<std::string>& overrides,
                                          const std::vector<std::string>& removed) {
    auto name_of = [](std::string_view entry) { return entry.substr(0, entry.find('=')); };
    auto replaced = [&](std::string_view name) {
        for (const auto& o : overrides) {
            if (name_of(o) == name) return true;
        }
        return std::find(removed.begin(), removed.end(), name) != removed.end();
    };
    std::vector<std::string> env;
    for (char** e = environ; e != nullptr && *e != nullptr; ++e) {
        if (!replaced(name_of(*e))) env.emplace_back(*e);
    }
    env.insert(env.end(), overrides.begin(), overrides.end());
    return env;
}

}  // namespace sandbox

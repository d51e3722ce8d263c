#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>

#include "pkgd/platform.hpp"

namespace pkgd {
namespace {

// Everything the child does between fork and exec is async-signal-safe: the argument vector is
// built before the fork, and the child only moves descriptors and execs.
[[noreturn]] void exec_child(char* const* argv, int report_fd) {
    // The command starts with the signal state of a fresh process: nothing blocked, and SIGPIPE
    // (which a daemon commonly ignores) back to its default, so a writer to a closed pipe ends.
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    ::signal(SIGPIPE, SIG_DFL);
    const int null_fd = ::open("/dev/null", O_RDONLY);
    if (null_fd < 0 || ::dup2(null_fd, STDIN_FILENO) < 0) ::_exit(127);
    // Keep 0-2 and the exec report pipe (close-on-exec, so a successful exec closes it).
    for (int fd = 3; fd < report_fd; ++fd) ::close(fd);
#ifdef SYS_close_range
    if (::syscall(SYS_close_range, report_fd + 1, ~0U, 0) != 0)
#endif
    {
        const long max_fd = ::sysconf(_SC_OPEN_MAX);
        for (long fd = report_fd + 1; fd < (max_fd > 0 ? max_fd : 1024); ++fd) ::close(static_cast<int>(fd));
    }
    ::execvp(argv[0], argv);
    const int err = errno;
    (void)!::write(report_fd, &err, sizeof err);
    ::_exit(127);
}

class RealCommandRunner final : public CommandRunner {
public:
    int run(const std::vector<std::string>& argv) override { return run_command(argv); }
};

}  // namespace

int run_command(const std::vector<std::string>& argv) {
    if (argv.empty() || argv[0].empty()) return -1;
    std::vector<char*> args;
    args.reserve(argv.size() + 1);
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);

    // A close-on-exec pipe tells the parent whether exec itself failed (exit status 127 could
    // also be the command's own).
    int report[2];
    if (::pipe2(report, O_CLOEXEC) != 0) return -1;
    const pid_t pid = ::fork();
    if (pid < 0) {
        ::close(report[0]);
        ::close(report[1]);
        return -1;
    }
    if (pid == 0) {
        ::close(report[0]);
        exec_child(args.data(), report[1]);
    }
    ::close(report[1]);
    int err = 0;
    ssize_t n;
    do n = ::read(report[0], &err, sizeof err);
    while (n < 0 && errno == EINTR);
    ::close(report[0]);

    int status = 0;
    pid_t waited;
    do waited = ::waitpid(pid, &status, 0);
    while (waited < 0 && errno == EINTR);
    if (waited != pid || n > 0 || !WIFEXITED(status)) return -1;
    return WEXITSTATUS(status);
}

CommandRunner& real_command_runner() {
    static RealCommandRunner runner;
    return runner;
}

}  // namespace pkgd

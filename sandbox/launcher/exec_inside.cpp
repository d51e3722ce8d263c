#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "console.hpp"
#include "launch.hpp"
#include "namespaces.hpp"
#include "sandbox/process.hpp"
#include "sandbox/ready_file.hpp"
#include "sandbox/root_paths.hpp"

namespace sandbox {
namespace {

constexpr int kNoSandbox = 125;
constexpr int kCannotRun = 127;

// A small, predictable environment: the host's would leak paths that mean nothing inside.
std::vector<std::string> inside_environment(const std::vector<std::string>& extra) {
    std::vector<std::string> env{"PATH=" + std::string(kSearchPath), "HOME=/root"};
    if (const char* term = std::getenv("TERM")) env.push_back(std::string("TERM=") + term);
    env.insert(env.end(), extra.begin(), extra.end());
    return env;
}

}  // namespace

int exec_inside(const std::filesystem::path& root, const std::vector<std::string>& env,
                const std::vector<std::string>& argv, int pid_fd) {
    auto sandbox = running_sandbox(root);
    if (!sandbox) {
        complain("no sandbox is running at " + root.string());
        return kNoSandbox;
    }
    if (Status s = join_namespaces(sandbox->init_pid); !s) {
        complain(s.error());
        return kNoSandbox;
    }
    sigset_t handled;
    sigemptyset(&handled);
    for (int sig : {SIGCHLD, SIGTERM, SIGINT, SIGHUP, SIGQUIT, SIGUSR1, SIGUSR2}) sigaddset(&handled, sig);
    sigprocmask(SIG_BLOCK, &handled, nullptr);

    if (pid_fd >= 0) ::fcntl(pid_fd, F_SETFD, FD_CLOEXEC);
    SpawnSpec spec;
    spec.argv = argv;
    spec.env = inside_environment(env);
    spec.search_path = std::string(kSearchPath);
    spec.chroot_dir = root;
    spec.death_signal = SIGKILL;  // stopping this process stops the program
    spec.report_pid_fd = pid_fd;
    Spawned child = spawn(spec);
    if (pid_fd >= 0) ::close(pid_fd);
    if (!child) {
        complain(child.error);
        return kCannotRun;
    }
    while (true) {
        siginfo_t info;
        if (::sigwaitinfo(&handled, &info) < 0) continue;
        if (info.si_signo != SIGCHLD) {
            ::kill(child.pid, info.si_signo);
            continue;
        }
        int status = 0;
        if (::waitpid(child.pid, &status, WNOHANG) == child.pid) return shell_exit_code(status);
    }
}

}  // namespace sandbox

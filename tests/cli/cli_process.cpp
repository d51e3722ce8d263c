#include "cli_process.hpp"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <thread>

namespace cli_test {

namespace {

using namespace std::chrono_literals;

int exit_code(int status) {
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return -1;
}

std::vector<char*> c_argv(const std::vector<std::string>& argv) {
    std::vector<char*> v;
    for (const std::string& a : argv) v.push_back(const_cast<char*>(a.c_str()));
    v.push_back(nullptr);
    return v;
}

// Reads both descriptors until both are at their end.
void drain(int a, std::string& into_a, int b, std::string& into_b) {
    pollfd fds[] = {{a, POLLIN, 0}, {b, POLLIN, 0}};
    std::string* into[] = {&into_a, &into_b};
    int open = 2;
    while (open > 0 && ::poll(fds, 2, -1) > 0) {
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || !fds[i].revents) continue;
            char buf[4096];
            const ssize_t n = ::read(fds[i].fd, buf, sizeof buf);
            if (n > 0) {
                into[i]->append(buf, static_cast<std::size_t>(n));
            } else if (n == 0 || errno != EINTR) {
                fds[i].fd = -1;
                --open;
            }
        }
    }
}

bool in_epoll_wait(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/syscall");
    long nr = -1;
    if (!(in >> nr)) return false;  // "running", or gone
#ifdef SYS_epoll_wait
    if (nr == SYS_epoll_wait) return true;
#endif
#ifdef SYS_epoll_pwait2
    if (nr == SYS_epoll_pwait2) return true;
#endif
    return nr == SYS_epoll_pwait;
}

}  // namespace

CliProcess::CliProcess(const std::vector<std::string>& argv, const std::string& dir) {
    int out[2], err[2];
    if (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
    out_.reset(out[0]);
    err_.reset(err[0]);
    auto args = c_argv(argv);
    pid_ = ::fork();
    if (pid_ == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        ::dup2(out[1], STDOUT_FILENO);
        ::dup2(err[1], STDERR_FILENO);
        if (::chdir(dir.c_str()) == 0) ::execv(UBUS_CLI_PATH, args.data());
        ::_exit(127);
    }
    ::close(out[1]);
    ::close(err[1]);
    if (pid_ < 0) throw std::runtime_error("fork");
}

CliProcess::~CliProcess() {
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
}

bool CliProcess::wait_until_serving(int timeout_ms) const {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (std::chrono::steady_clock::now() < deadline) {
        if (in_epoll_wait(pid_)) return true;
        siginfo_t ended{};
        if (::waitid(P_PID, static_cast<id_t>(pid_), &ended, WEXITED | WNOHANG | WNOWAIT) == 0 &&
            ended.si_pid == pid_)
            return false;
        std::this_thread::sleep_for(2ms);
    }
    return false;
}

Output CliProcess::finish() {
    Output o;
    drain(out_.get(), o.out, err_.get(), o.err);
    int status = 0;
    ::waitpid(pid_, &status, 0);
    pid_ = -1;
    o.exit = exit_code(status);
    return o;
}

std::string run_in_terminal(const std::string& command, const std::string& dir, const std::string& path_dir) {
    int master = -1;
    const pid_t pid = ::forkpty(&master, nullptr, nullptr, nullptr);
    if (pid < 0) throw std::runtime_error("forkpty");
    if (pid == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        const char* path = std::getenv("PATH");
        const std::string search = path_dir + ":" + (path ? path : "/usr/bin:/bin");
        ::setenv("PATH", search.c_str(), 1);
        if (::chdir(dir.c_str()) == 0)
            ::execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
        ::_exit(127);
    }
    const ubus::UniqueFd term(master);
    std::string raw;
    char buf[4096];
    // The terminal reports EIO once the last process holding it has gone.
    for (ssize_t n; (n = ::read(term.get(), buf, sizeof buf)) != 0;) {
        if (n > 0)
            raw.append(buf, static_cast<std::size_t>(n));
        else if (errno != EINTR)
            break;
    }
    ::waitpid(pid, nullptr, 0);
    std::string text;
    for (std::size_t i = 0; i < raw.size(); ++i)
        if (!(raw[i] == '\r' && i + 1 < raw.size() && raw[i + 1] == '\n')) text += raw[i];
    return text;
}

DemoOwner::DemoOwner(const std::string& socket) {
    int ready[2];
    if (::pipe2(ready, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
    pid_ = ::fork();
    if (pid_ == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGTERM);
        ::dup2(ready[1], STDOUT_FILENO);
        ::execl(DEMO_OWNER_PATH, "cli_demo_owner", socket.c_str(), static_cast<char*>(nullptr));
        ::_exit(127);
    }
    ::close(ready[1]);
    const ubus::UniqueFd from_owner(ready[0]);
    if (pid_ < 0) throw std::runtime_error("fork");
    std::string line;
    char buf[16];
    for (ssize_t n;
         line.find('\n') == std::string::npos && (n = ::read(from_owner.get(), buf, sizeof buf)) > 0;)
        line.append(buf, static_cast<std::size_t>(n));
    if (line != "ready\n") throw std::runtime_error("the demo owner did not start");
}

DemoOwner::~DemoOwner() {
    ::kill(pid_, SIGTERM);
    ::waitpid(pid_, nullptr, 0);
}

}  // namespace cli_test

#include "child_process.hpp"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <stdexcept>

#include "poll.hpp"

#ifndef SYS_epoll_wait
#define SYS_epoll_wait SYS_epoll_pwait  // architectures that only have the newer call
#endif

namespace bus_test {

Child::Child(const std::string& program, const std::vector<std::string>& argv, const std::string& dir,
             bool capture) {
    int out_p[2] = {-1, -1}, err_p[2] = {-1, -1};
    if (capture && (::pipe2(out_p, O_CLOEXEC) != 0 || ::pipe2(err_p, O_CLOEXEC) != 0))
        throw std::runtime_error("pipe");
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    pid_ = ::fork();
    if (pid_ == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);  // a test that crashes leaves nothing behind
        if (capture) {
            ::dup2(out_p[1], STDOUT_FILENO);
            ::dup2(err_p[1], STDERR_FILENO);
        }
        if (::chdir(dir.c_str()) == 0) ::execv(program.c_str(), args.data());
        ::_exit(127);
    }
    if (capture) {
        out_pipe_.reset(out_p[0]);
        err_pipe_.reset(err_p[0]);
        ::close(out_p[1]);
        ::close(err_p[1]);
    }
    if (pid_ < 0) throw std::runtime_error("fork");
}

Child::~Child() {
    if (pid_ > 0) stop(SIGKILL);
}

int Child::wait() {
    if (pid_ <= 0) return -1;
    int status = 0;
    ::waitpid(std::exchange(pid_, -1), &status, 0);
    for (auto [pipe, text] : {std::pair{&out_pipe_, &out}, std::pair{&err_pipe_, &err}}) {
        char buf[4096];
        for (ssize_t n; *pipe && (n = ::read(pipe->get(), buf, sizeof buf)) > 0;)
            text->append(buf, static_cast<std::size_t>(n));
    }
    return status;
}

int Child::stop(int signal) {
    if (pid_ > 0) ::kill(pid_, signal);
    return wait();
}

bool Child::ended() const {
    siginfo_t ended{};
    return ::waitid(P_PID, static_cast<id_t>(pid_), &ended, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           ended.si_pid == pid_;
}

bool Child::wait_until_serving(int timeout_ms) const {
    bool serving = false;
    testsupport::poll_until(
        std::chrono::milliseconds(timeout_ms),
        [&] {
            std::ifstream in("/proc/" + std::to_string(pid_) + "/syscall");
            long nr = -1;
            serving = in >> nr && (nr == SYS_epoll_wait || nr == SYS_epoll_pwait);
            return serving || ended();
        },
        std::chrono::milliseconds(2));
    return serving;
}

int run_forked(const std::function<int()>& body) {
    const pid_t pid = ::fork();
    if (pid == 0) {
        int code = 1;
        try {
            code = body();
        } catch (...) {
        }
        ::_exit(code);
    }
    int status = 0;
    return pid > 0 && ::waitpid(pid, &status, 0) == pid ? exit_code(status) : -1;
}

}  // namespace bus_test

#include "launch.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "console.hpp"
#include "namespaces.hpp"
#include "sandbox/ready_file.hpp"
#include "sandbox/root_paths.hpp"
#include "supervisor.hpp"
#include "ubus/fd.hpp"

namespace sandbox {
namespace {

using ubus::UniqueFd;

struct Pipe {
    UniqueFd read, write;
};

bool make_pipe(Pipe& p) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) return false;
    p.read.reset(fds[0]);
    p.write.reset(fds[1]);
    return true;
}

// PID 1's side of the fork; never returns.
[[noreturn]] void become_init(const LaunchOptions& options, Pipe& report, Pipe& alive) {
    report.read.reset();
    alive.write.reset();
    // Away from the terminal's process group: Ctrl-C reaches the launcher, which turns it into an
    // orderly stop, instead of killing everything at once.
    ::setsid();
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    pollfd p{alive.read.get(), POLLIN, 0};
    if (::poll(&p, 1, 0) != 0) _exit(1);  // the launcher died before the request took effect
    _exit(run_supervisor(options, std::move(report.write), std::move(alive.read)));
}

// Relays PID 1's start-up report ("ready" or "failed <reason>"); false once it is complete.
bool relay_report(const LaunchOptions& options, int fd, pid_t init, std::string& pending) {
    char buf[512];
    ssize_t n = ::read(fd, buf, sizeof buf);
    if (n < 0 && errno == EINTR) return true;
    if (n <= 0) return false;
    pending.append(buf, static_cast<std::size_t>(n));
    auto newline = pending.find('\n');
    if (newline == std::string::npos) return true;
    std::string line = pending.substr(0, newline);
    if (line != "ready") {
        complain(line.starts_with("failed ") ? line.substr(7) : line);
    } else if (Status s = write_ready_file(options.root, init); !s) {
        complain(s.error());
    } else {
        say("ready: root " + options.root.string() + ", bus " + host_path(options.root, kBusSocket).string());
    }
    return false;
}

}  // namespace

std::vector<ToolBinding> bound_tools(const LaunchOptions& options) {
    std::vector<ToolBinding> tools = options.tools;
    if (!options.broker.empty()) tools.push_back({options.broker, std::string(kBrokerInside)});
    if (!options.simulator.empty()) tools.push_back({options.simulator, std::string(kSimulatorInside)});
    if (!options.opkg.empty()) tools.push_back({options.opkg, std::string(kOpkgInside)});
    return tools;
}

int launch(const LaunchOptions& options) {
    if (Status s = build_root({options.root, options.busybox, bound_tools(options)}); !s) {
        complain(s.error());
        return 1;
    }
    remove_ready_file(options.root);
    Pipe report, alive;
    if (!make_pipe(report) || !make_pipe(alive)) {
        complain(system_error("pipe", errno));
        return 1;
    }
    // Blocked before the fork so that none is lost in between; each side reads its own.
    sigset_t handled;
    sigemptyset(&handled);
    for (int sig : {SIGCHLD, SIGTERM, SIGINT, SIGHUP}) sigaddset(&handled, sig);
    sigprocmask(SIG_BLOCK, &handled, nullptr);

    if (Status s = enter_new_namespaces(options.user_namespace); !s) {
        complain(s.error());
        return 1;
    }
    pid_t init = ::fork();
    if (init < 0) {
        complain(system_error("fork", errno));
        return 1;
    }
    if (init == 0) become_init(options, report, alive);
    report.write.reset();
    alive.read.reset();

    UniqueFd signals(::signalfd(-1, &handled, SFD_CLOEXEC));
    std::string pending;
    bool report_open = true;
    int forwarded = 0;
    while (true) {
        pollfd fds[2] = {{signals.get(), POLLIN, 0}, {report_open ? report.read.get() : -1, POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0 && errno != EINTR) break;
        if (fds[1].revents != 0) report_open = relay_report(options, report.read.get(), init, pending);
        if (fds[0].revents == 0) continue;
        signalfd_siginfo info;
        if (::read(signals.get(), &info, sizeof info) != sizeof info) continue;
        if (info.ssi_signo != SIGCHLD) {
            // The first request stops the sandbox in order; a second one does not wait.
            ::kill(init, ++forwarded == 1 ? SIGTERM : SIGKILL);
            continue;
        }
        int status = 0;
        if (::waitpid(init, &status, WNOHANG) == init) {
            remove_ready_file(options.root);
            say("stopped");
            return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
        }
    }
    ::kill(init, SIGKILL);
    ::waitpid(init, nullptr, 0);
    remove_ready_file(options.root);
    return 1;
}

}  // namespace sandbox

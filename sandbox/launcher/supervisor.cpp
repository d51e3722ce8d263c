#include "supervisor.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <climits>
#include <optional>
#include <thread>

#include "console.hpp"
#include "control_server.hpp"
#include "feed_servers.hpp"
#include "host_view.hpp"
#include "mounts.hpp"
#include "sandbox/control.hpp"
#include "sandbox/process.hpp"
#include "sandbox/root_paths.hpp"
#include "size_limited_root.hpp"
#include "syslog_collector.hpp"
#include "unix_socket.hpp"

namespace sandbox {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using ubus::UniqueFd;

// One process the sandbox runs on purpose (as opposed to orphans it only reaps).
struct Child {
    std::string name;
    pid_t pid = 0;  // 0: not running
    pid_t last_pid = 0;
    unsigned runs = 0;
    std::optional<int> last_wait_status;
    std::optional<Clock::time_point> kill_at;  // SIGKILL then, unless it has ended
    bool restart_after_exit = false;
};

Status write_file_atomically(const fs::path& path, const std::string& content) {
    fs::path temporary = path;
    temporary += ".new";
    UniqueFd fd(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (!fd || ::write(fd.get(), content.data(), content.size()) != static_cast<ssize_t>(content.size())) {
        return Status::failure(system_error("write " + temporary.string(), errno));
    }
    fd.reset();
    if (::rename(temporary.c_str(), path.c_str()) != 0) {
        return Status::failure(system_error("rename " + temporary.string(), errno));
    }
    return {};
}

class Supervisor {
public:
    Supervisor(const LaunchOptions& options, UniqueFd report, UniqueFd launcher_alive)
        : options_(options), report_(std::move(report)), launcher_alive_(std::move(launcher_alive)) {
        pkgd_.name = "pkgd";
        broker_.name = "ubusd";
        simulator_.name = "gateway-sim";
        web_.name = "lighttpd";
        ftp_.name = "pure-ftpd";
    }

    int run() {
        Status started = start_up();
        std::string line = started ? "ready\n" : "failed " + started.error() + "\n";
        [[maybe_unused]] auto ignored = ::write(report_.get(), line.data(), line.size());
        report_.reset();
        if (!started) return 1;
        return serve();
    }

private:
    fs::path inside(std::string_view path) const { return host_path(options_.root, path); }

    Status start_up() {
        sigset_t handled;
        sigemptyset(&handled);
        for (int sig : {SIGCHLD, SIGTERM, SIGINT, SIGHUP}) sigaddset(&handled, sig);
        sigprocmask(SIG_BLOCK, &handled, nullptr);
        signals_.reset(::signalfd(-1, &handled, SFD_NONBLOCK | SFD_CLOEXEC));
        if (!signals_) return Status::failure(system_error("signalfd", errno));

        if (options_.root_size_mib > 0) {
            if (Status s = mount_size_limited_root(options_.root, options_.root_size_mib); !s) return s;
        }
        if (Status s = mount_proc(inside("/proc")); !s) return s;
        if (Status s = mount_host_view(options_.root); !s) return s;
        for (const ToolBinding& tool : bound_tools(options_)) {
            if (Status s = bind_read_only(tool.host, inside(tool.inside)); !s) return s;
        }
        if (Status s = collector_.open(inside(kSyslogSocket), inside(kSyslogFile)); !s) return s;
        auto handler = [this](std::string_view request) { return handle(request); };
        if (Status s = control_.open(inside(kControlSocket), handler); !s) return s;
        ::unlink(inside(kPkgdStatusFile).c_str());
        ::unlink(inside(kFeedUrlsFile).c_str());

        if (!options_.feed_dir.empty()) {
            if (Status s = start_feed_servers(); !s) return s;
        }
        if (!options_.broker.empty()) {
            if (Status s = start_broker(); !s) return s;
        }
        if (!options_.simulator.empty()) {
            if (Status s = start_simulator(); !s) return s;
        }
        if (!options_.pkgd.empty() && options_.pkgd_at_start) {
            if (Status s = start_pkgd(); !s) return s;
        }
        return {};
    }

    // Output of each process goes to its own file in the state directory; stdin is empty.
    Status start(Child& child, SpawnSpec spec) {
        fs::path log = output_log(options_.root, child.name);
        UniqueFd output(::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
        UniqueFd null_in(::open("/dev/null", O_RDONLY | O_CLOEXEC));
        if (!output || !null_in) return Status::failure(system_error("open " + log.string(), errno));
        spec.stdin_fd = null_in.get();
        spec.stdout_fd = output.get();
        spec.stderr_fd = output.get();
        spec.death_signal = SIGKILL;
        Spawned spawned = spawn(spec);
        if (!spawned) return Status::failure(child.name + ": " + spawned.error);
        child.pid = spawned.pid;
        child.kill_at.reset();
        ++child.runs;
        return {};
    }

    // The launcher's environment with the gateway's search path. An EXECENV_INDEX of the host would
    // silently change which environment pkgd serves: only the pkgd options may set it.
    std::vector<std::string> gateway_environment(std::vector<std::string> extra = {}) const {
        extra.push_back("PATH=" + std::string(kSearchPath));
        return environment_with(extra, {"EXECENV_INDEX"});
    }

    // The broker runs inside the root, as on a gateway, so it writes nothing on the host.
    Status start_broker() {
        fs::path socket = inside(kBusSocket);
        ::unlink(socket.c_str());
        SpawnSpec spec;
        spec.argv = {std::string(kBrokerInside), "-s", std::string(kBusSocket)};
        spec.env = gateway_environment();
        spec.chroot_dir = options_.root;
        if (Status s = start(broker_, spec); !s) return s;
        const auto deadline = Clock::now() + options_.ready_timeout;
        while (!connect_unix(socket, SOCK_STREAM)) {
            reap();
            if (broker_.pid == 0) {
                return Status::failure("the broker exited during start-up; see " +
                                       output_log(options_.root, "ubusd").string());
            }
            if (Clock::now() >= deadline)
                return Status::failure("the broker does not accept connections on " + socket.string());
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return {};
    }

    // The feed servers run in the sandbox's namespaces but not chrooted: they serve a host
    // directory. "ready" waits until each accepts connections.
    Status start_feed_servers() {
        feed::Pki pki;
        FeedServers servers;
        if (Status s = feed_pki(options_, pki); !s) return s;
        if (Status s = install_feed_trust(options_.root, pki); !s) return s;
        if (Status s = prepare_feed_servers(options_, pki, servers); !s) return s;
        servers.web.death_signal = servers.ftp.death_signal = SIGKILL;
        if (Status s = start(web_, servers.web); !s) return s;
        if (Status s = start(ftp_, servers.ftp); !s) return s;
        const auto deadline = Clock::now() + options_.ready_timeout;
        for (auto [child, port] : {std::pair{&web_, servers.ports.http}, std::pair{&web_, servers.ports.https},
                                   std::pair{&ftp_, servers.ports.ftp}}) {
            while (!accepts_on_loopback(port)) {
                reap();
                if (child->pid == 0) {
                    return Status::failure(child->name + " exited during start-up; see " +
                                           output_log(options_.root, child->name).string());
                }
                if (Clock::now() >= deadline)
                    return Status::failure(child->name + " does not accept connections on port " + std::to_string(port));
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            }
        }
        return {};
    }

    Status start_simulator() {
        SpawnSpec spec;
        spec.argv = {std::string(kSimulatorInside), "-s", std::string(kBusSocket)};
        spec.argv.insert(spec.argv.end(), options_.simulator_args.begin(), options_.simulator_args.end());
        spec.chroot_dir = options_.root;
        if (!options_.simulator_notifies) {
            spec.env = gateway_environment();
            return start(simulator_, spec);
        }
        int pipe_fds[2];
        if (::pipe2(pipe_fds, O_CLOEXEC) != 0) return Status::failure(system_error("pipe", errno));
        UniqueFd ready_read(pipe_fds[0]), ready_write(pipe_fds[1]);
        constexpr int kNotifyFd = 3;
        spec.env = gateway_environment({"SANDBOX_NOTIFY_FD=" + std::to_string(kNotifyFd)});
        spec.extra_fds = {{ready_write.get(), kNotifyFd}};
        if (Status s = start(simulator_, spec); !s) return s;
        ready_write.reset();
        pollfd p{ready_read.get(), POLLIN, 0};
        auto wait_ms = std::min<long long>(options_.ready_timeout.count(), INT_MAX);
        int r;
        do {
            r = ::poll(&p, 1, static_cast<int>(wait_ms));
        } while (r < 0 && errno == EINTR);
        char byte;
        if (r == 0) return Status::failure("the gateway simulator did not report readiness in time");
        if (::read(ready_read.get(), &byte, 1) != 1) {
            return Status::failure(
                "the gateway simulator closed its notification descriptor or exited before it was ready");
        }
        return {};
    }

    // pkgd changes root itself (-r), as it does on a board when given one; it stays in the
    // foreground so that its exit status reaches us.
    Status start_pkgd() {
        SpawnSpec spec;
        spec.argv = {options_.pkgd.string(), "-r", options_.root.string(), "-f"};
        spec.env = gateway_environment(options_.pkgd_env);
        spec.cwd = options_.root;
        return start(pkgd_, spec);
    }

    int serve() {
        while (true) {
            std::vector<pollfd> fds{{signals_.get(), POLLIN, 0},
                                    {launcher_alive_.get(), POLLIN, 0},
                                    {collector_.fd(), POLLIN, 0}};
            for (int fd : control_.fds()) fds.push_back({fd, POLLIN, 0});
            int r = ::poll(fds.data(), fds.size(), poll_timeout());
            if (r < 0 && errno != EINTR) return 1;
            if (fds[1].revents != 0) return 1;  // the launcher is gone; dying is all that is left
            if (fds[0].revents != 0) on_signals();
            if (fds[2].revents != 0) collector_.drain();
            for (std::size_t i = 3; i < fds.size(); ++i) {
                if (fds[i].revents != 0) control_.on_readable(fds[i].fd);
            }
            enforce_deadlines();
            if (stopping_ && advance_shutdown()) {
                collector_.drain();
                return 0;
            }
        }
    }

    int poll_timeout() const {
        std::optional<Clock::time_point> next;
        for (const Child* c : children()) {
            if (c->pid != 0 && c->kill_at && (!next || *c->kill_at < *next)) next = c->kill_at;
        }
        if (!next) return -1;
        auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(*next - Clock::now()).count() + 1;
        return static_cast<int>(std::clamp<long long>(ms, 0, INT_MAX));
    }

    void on_signals() {
        signalfd_siginfo info;
        while (::read(signals_.get(), &info, sizeof info) == sizeof info) {
            if (info.ssi_signo == SIGCHLD) continue;  // reaped below, whichever child it was
            stopping_ = true;
        }
        reap();
    }

    // Collects every ended child: ours and orphans adopted by PID 1 alike.
    void reap() {
        int status = 0;
        pid_t pid;
        while ((pid = ::waitpid(-1, &status, WNOHANG)) > 0) {
            for (Child* c : children()) {
                if (c->pid == pid) on_exit(*c, status);
            }
        }
    }

    void on_exit(Child& child, int wait_status) {
        child.last_pid = std::exchange(child.pid, 0);
        child.kill_at.reset();
        child.last_wait_status = wait_status;
        say(child.name + " exited: " + format_wait_status(wait_status));
        if (&child != &pkgd_) return;
        if (Status s = write_file_atomically(inside(kPkgdStatusFile), format_wait_status(wait_status) + "\n");
            !s) {
            complain(s.error());
        }
        if (std::exchange(child.restart_after_exit, false) && !stopping_) {
            if (Status s = start_pkgd(); !s) complain(s.error());
        }
    }

    void stop(Child& child) {
        if (child.pid == 0 || child.kill_at) return;
        ::kill(child.pid, SIGTERM);
        child.kill_at = Clock::now() + options_.stop_grace;
    }

    void enforce_deadlines() {
        const auto now = Clock::now();
        for (Child* c : children()) {
            if (c->pid != 0 && c->kill_at && *c->kill_at <= now) {
                ::kill(c->pid, SIGKILL);
                c->kill_at = Clock::time_point::max();
            }
        }
    }

    // pkgd first (it may still talk to the bus on its way out), then the simulator, the broker and
    // the feed servers. True when done.
    bool advance_shutdown() {
        for (Child* c : children()) {
            if (c->pid != 0) {
                c->restart_after_exit = false;
                stop(*c);
                return false;
            }
        }
        return true;
    }

    PkgdStatus pkgd_status() const {
        PkgdStatus status;
        if (options_.pkgd.empty()) return status;
        status.state = pkgd_.pid != 0   ? PkgdStatus::State::kRunning
                       : pkgd_.runs > 0 ? PkgdStatus::State::kExited
                                        : PkgdStatus::State::kIdle;
        status.pid = pkgd_.pid != 0 ? pkgd_.pid : pkgd_.last_pid;
        status.runs = pkgd_.runs;
        status.last_wait_status = pkgd_.last_wait_status;
        return status;
    }

    std::string handle(std::string_view request) {
        if (request == "status") return "ok " + format_pkgd_status(pkgd_status());
        if (request == "restart-broker") return restart_broker();
        if (options_.pkgd.empty()) return "error no pkgd is configured";
        if (stopping_) return "error the sandbox is shutting down";
        if (request == "start") {
            if (pkgd_.pid != 0) return "error pkgd is already running";
            if (Status s = start_pkgd(); !s) return "error " + s.error();
        } else if (request == "stop") {
            if (pkgd_.pid == 0) return "error pkgd is not running";
            stop(pkgd_);
        } else if (request == "restart") {
            if (pkgd_.pid == 0) {
                if (Status s = start_pkgd(); !s) return "error " + s.error();
            } else {
                pkgd_.restart_after_exit = true;
                stop(pkgd_);
            }
        } else if (request.starts_with("signal ")) {
            std::string_view number = request.substr(7);
            int sig = 0;
            auto [end, ec] = std::from_chars(number.data(), number.data() + number.size(), sig);
            if (ec != std::errc() || end != number.data() + number.size() || sig <= 0 || sig >= NSIG) {
                return "error not a signal number: " + std::string(number);
            }
            if (pkgd_.pid == 0) return "error pkgd is not running";
            ::kill(pkgd_.pid, sig);
        } else {
            return "error unknown request: " + std::string(request.substr(0, 64));
        }
        return "ok " + format_pkgd_status(pkgd_status());
    }

    // The broker goes as on a crash (SIGKILL: no client is told) and starts again on the same
    // socket; the simulator, which ends with its broker, starts again after it. Answered once the
    // broker accepts connections again (and the simulator is ready), so that a client can time
    // how long pkgd takes to come back from there.
    std::string restart_broker() {
        if (stopping_) return "error the sandbox is shutting down";
        if (broker_.pid == 0) return "error the broker is not running";
        ::kill(broker_.pid, SIGKILL);
        wait_for_end(broker_);
        wait_for_end(simulator_);
        if (Status s = start_broker(); !s) return "error " + s.error();
        if (!options_.simulator.empty()) {
            if (Status s = start_simulator(); !s) return "error " + s.error();
        }
        return "ok " + format_pkgd_status(pkgd_status());
    }

    // Reaps until `child` has ended, killing it once it outstays the stop grace.
    void wait_for_end(Child& child) {
        const auto kill_at = Clock::now() + options_.stop_grace;
        while (child.pid != 0) {
            if (Clock::now() >= kill_at) ::kill(child.pid, SIGKILL);
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
            reap();
        }
    }

    // In stopping order.
    std::array<Child*, 5> children() { return {&pkgd_, &simulator_, &broker_, &web_, &ftp_}; }
    std::array<const Child*, 5> children() const { return {&pkgd_, &simulator_, &broker_, &web_, &ftp_}; }

    const LaunchOptions& options_;
    UniqueFd report_;
    UniqueFd launcher_alive_;
    UniqueFd signals_;
    SyslogCollector collector_;
    ControlServer control_;
    Child pkgd_, simulator_, broker_, web_, ftp_;
    bool stopping_ = false;
};

}  // namespace

int run_supervisor(const LaunchOptions& options, UniqueFd report, UniqueFd launcher_alive) {
    return Supervisor(options, std::move(report), std::move(launcher_alive)).run();
}

}  // namespace sandbox

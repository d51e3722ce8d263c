// A sandbox gateway for tests: a fresh root under the build directory, the launcher running on it,
// and ways to act inside it. Everything is torn down when the object goes away: the launcher is
// stopped (every process inside dies with its namespaces) and the root is removed, unless the
// environment variable PKGD_SANDBOX_KEEP is set (to inspect it after a failure).
//
// Roots go to PKGD_SANDBOX_ROOTS when set, else to the build directory's sandbox-roots/; each
// gateway gets a directory of its own, so tests may run in parallel.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sandbox/control.hpp"
#include "sandbox/process.hpp"
#include "sandbox/root_builder.hpp"
#include "sandbox/root_paths.hpp"
#include "sandbox/status.hpp"

namespace sandbox {

struct GatewayOptions {
    std::string name = "gateway";  // start of the root directory's name: the test's name, say
    bool broker = true;
    std::filesystem::path broker_path;  // empty: the project's ubusd
    bool simulator = false;
    std::filesystem::path simulator_path;  // empty: the project's gateway simulator
    // Wait until it writes to $SANDBOX_NOTIFY_FD, as the project's simulator does once its objects
    // are on the bus: up() then means the peers answer.
    bool simulator_notifies = true;
    // The simulator's execution environments as JSON, {"environments": [{"id", "name", "enabled",
    // "version", "vendor", "type"}, ...]}; empty: its default, the native environment "System".
    std::string simulator_config;
    // Peers that misbehave from the start, "PEER=MODE[:N]": "catalog=absent", "catalog=slow:6000",
    // "services=refuse:4" (see set_fault).
    std::vector<std::string> simulator_faults;
    bool pkgd = false;
    std::filesystem::path pkgd_path;    // empty: the project's pkgd
    bool pkgd_at_start = true;          // otherwise start it with start_pkgd()
    std::vector<std::string> pkgd_env;  // NAME=VALUE, e.g. "EXECENV_INDEX=2"
    std::vector<ToolBinding> tools;     // host files visible read-only inside
    std::filesystem::path opkg_path;    // the package tool bound as /bin/opkg; empty: the project's
    // ----- the feed -----
    // A directory served on 127.0.0.1 over HTTP, HTTPS and FTP (see feed_url); empty: no servers.
    // The root's /etc/opkg/opkg.pem becomes the PKI's CA unless `prepare` put one there.
    std::filesystem::path feed_dir;
    std::filesystem::path feed_pki;  // a "pkgd-feed pki" directory; empty: one the launcher makes
    std::string feed_user;           // basic authentication and FTP login; empty: open HTTP(S),
    std::string feed_password;       // and the FTP login "feed" with password "feed"
    // A root file system of this many MiB (a tmpfs): statfs("/") inside reports it and writes beyond
    // it fail. path() then leads through /proc/<PID 1>/root, the only way in from the host.
    std::uint64_t root_size_mib = 0;
    // Called with the freshly built root before anything runs in it (record files, init scripts).
    std::function<void(const std::filesystem::path& root)> prepare;
    std::chrono::milliseconds ready_timeout = std::chrono::seconds(30);
    // Run the launcher and everything started inside as this (unprivileged) user: the launcher
    // then maps it to root in a user namespace. The root is handed over to the user.
    std::optional<Credentials> user;
};

// The answer to a call on the gateway simulator's control object.
struct SimReply {
    int status = -1;                 // the bus status; -1 when the bus could not be reached
    std::vector<std::uint8_t> data;  // the members of its reply (ubus::Bytes for ubus::parse)
    std::string json;                // the same as compact JSON ("" without a reply)
    bool ok() const { return status == 0; }
};

// A program running inside a gateway, started by Gateway::spawn. Stopped when destroyed.
class InsideProcess {
public:
    InsideProcess() = default;
    InsideProcess(pid_t helper, pid_t pid, std::string error);
    InsideProcess(InsideProcess&& other) noexcept;
    InsideProcess& operator=(InsideProcess&& other) noexcept;
    InsideProcess(const InsideProcess&) = delete;
    InsideProcess& operator=(const InsideProcess&) = delete;
    ~InsideProcess();

    bool started() const { return pid_ > 0; }
    const std::string& error() const { return error_; }
    pid_t pid() const { return pid_; }  // as seen inside the gateway

    void signal(int sig) const;
    // The exit code (128 + signal when killed), once the program has ended within `timeout`.
    std::optional<int> wait(std::chrono::milliseconds timeout);
    // SIGTERM, then SIGKILL after `grace`; the exit code.
    std::optional<int> stop(std::chrono::milliseconds grace = std::chrono::seconds(5));

private:
    pid_t helper_ = 0;  // the host process that started the program and waits for it
    pid_t pid_ = 0;
    std::optional<int> exit_code_;
    std::string error_;
};

class Gateway {
public:
    explicit Gateway(GatewayOptions options = {});
    ~Gateway();
    Gateway(const Gateway&) = delete;
    Gateway& operator=(const Gateway&) = delete;

    bool up() const { return error_.empty(); }
    const std::string& error() const { return error_; }  // why the gateway is not up

    const std::filesystem::path& root() const { return root_; }
    std::filesystem::path path(std::string_view inside) const;  // host path of a path inside
    std::filesystem::path socket_path() const;                  // the bus socket, from the host
    // The feed servers' base URL for "http", "https" or "ftp" ("" without a feed).
    std::string feed_url(std::string_view scheme) const;
    // The PKI the feed is served with (ca, signer, server ...; see sandbox/feed/pki.hpp).
    std::filesystem::path feed_pki_dir() const;

    // A program run inside (chrooted, in the gateway's namespaces); waits for it to end.
    CommandResult run(std::vector<std::string> argv,
                      std::chrono::milliseconds timeout = std::chrono::seconds(30)) const;
    CommandResult sh(std::string_view script,
                     std::chrono::milliseconds timeout = std::chrono::seconds(30)) const;
    // A program started inside and left running; its output goes to /var/run/sandbox/spawned.log.
    InsideProcess spawn(std::vector<std::string> argv) const;
    // Runs `body` in a forked child inside the gateway (its namespaces, chrooted to the root, as the
    // gateway's user), for code under test that works on the gateway's paths, processes and bus.
    // The exit code is what `body` returns (128 + signal when the child was killed); `out` is what
    // it put in its argument. Waits for it to end, killing it when `timeout` passes.
    CommandResult run_inside(const std::function<int(std::string& out)>& body,
                             std::chrono::milliseconds timeout = std::chrono::seconds(30)) const;

    Status start_pkgd() const;
    Status stop_pkgd() const;  // SIGTERM, then SIGKILL if it lingers
    Status restart_pkgd() const;
    Status signal_pkgd(int sig) const;
    // Kills the broker (SIGKILL) and starts it again, the simulator too when there is one; returns
    // once the broker accepts connections again.
    Status restart_broker() const;
    std::optional<PkgdStatus> pkgd_status() const;
    // The first status that satisfies `done`, polled until `timeout` passes.
    std::optional<PkgdStatus> wait_pkgd(const std::function<bool(const PkgdStatus&)>& done,
                                        std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;
    std::optional<PkgdStatus> wait_pkgd_exit(
        std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;

    // SIGKILL to pkgd, then a new run of it once the end is reported: the new run's first status
    // (it may have ended already), or nothing when pkgd was not running or no new run was started
    // within `timeout`.
    std::optional<PkgdStatus> kill_and_restart_pkgd(
        std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;

    // Processes inside, by their pids as seen inside (as pkgd_status() gives pkgd's): the children
    // of `parent` (only those whose program name is `name`, when given), those named `name`.
    std::vector<pid_t> children_inside(pid_t parent, std::string_view name = {}) const;
    std::vector<pid_t> processes_named(std::string_view name) const;
    // Sends `sig` to one of them; false when there is no such process.
    bool signal_inside(pid_t pid, int sig) const;

    // The lines of /var/log/messages ("<facility>.<severity> <record>").
    std::vector<std::string> syslog_lines() const;
    std::optional<std::string> wait_syslog(
        std::string_view needle, std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;

    // ----- the gateway simulator (options.simulator) -----
    // A call on its control object "Sandbox.GatewaySim" with JSON arguments.
    SimReply sim_call(std::string_view method, std::string_view json_args = "{}") const;
    // What the peers hold and were asked: {"catalog": ..., "datamodel": ..., "requests": [...]}.
    SimReply sim_state() const;
    // Makes a peer ("catalog", "datamodel", "services") misbehave ("absent", "slow", "refuse",
    // "hold") or behave again ("normal"). `value`: the delay in milliseconds of "slow" (default 6000,
    // longer than any time-out of pkgd's), the status "refuse" answers with (default 6), or the LCM
    // events and results "hold" lets pass before it stops answering.
    Status set_fault(std::string_view peer, std::string_view mode, std::optional<int> value = {}) const;
    // Forgets the requests; `all`: the catalog entries and the data model too.
    Status sim_reset(bool all = false) const;
    // Replaces the environments (JSON as GatewayOptions::simulator_config) and their service managers.
    Status sim_configure(std::string_view json) const;

    pid_t launcher_pid() const { return launcher_; }
    pid_t init_pid() const { return init_; }  // the gateway's PID 1, as seen on the host
    std::string pid_namespace() const { return pid_namespace_; }
    std::string mount_namespace() const { return mount_namespace_; }

    void signal_launcher(int sig) const;
    // The launcher's exit code once it has ended within `timeout`.
    std::optional<int> wait_launcher_exit(std::chrono::milliseconds timeout);
    // Orderly stop (as the destructor does); the launcher's exit code.
    std::optional<int> shut_down();

private:
    Status bring_up(GatewayOptions options);
    Status control(std::string_view request) const;
    std::vector<std::string> exec_argv(std::vector<std::string> argv, bool report_pid) const;

    std::filesystem::path host(std::string_view inside) const { return host_path(root_, inside); }

    std::filesystem::path root_;
    std::filesystem::path feed_pki_;
    bool size_limited_ = false;
    std::string error_;
    pid_t launcher_ = 0;
    std::optional<int> launcher_exit_;
    pid_t init_ = 0;
    std::optional<Credentials> user_;
    std::string pid_namespace_;
    std::string mount_namespace_;
};

// Host processes in the namespace `id` of the given kind ("pid", "mnt"), as returned by
// Gateway::pid_namespace() and Gateway::mount_namespace().
std::vector<pid_t> processes_in_namespace(const char* kind, const std::string& id);

// Whether the host's mount table shows anything mounted at or below `dir`.
bool host_has_mounts_below(const std::filesystem::path& dir);

}  // namespace sandbox

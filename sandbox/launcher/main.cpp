// pkgd-sandbox: brings a sandbox gateway up, runs programs in it, and controls its pkgd.
#include <unistd.h>

#include <charconv>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "console.hpp"
#include "default_tools.hpp"
#include "launch.hpp"
#include "sandbox/control.hpp"
#include "sandbox/root_paths.hpp"

namespace {

using namespace sandbox;
namespace fs = std::filesystem;

constexpr int kUsage = 2;

constexpr const char* kUsageText = R"(usage:
  pkgd-sandbox run ROOT [options]   bring a sandbox gateway up at ROOT; stays up until SIGTERM or Ctrl-C
      --broker PATH        the broker binary (default: the project's ubusd, when built)
      --no-broker          run without a broker
      --sim PATH           run this gateway simulator;  --with-sim: the project's
      --sim-notify         wait until the simulator writes to the descriptor $SANDBOX_NOTIFY_FD
      --sim-arg ARG        one more argument for the simulator (repeatable)
      --pkgd PATH          run this pkgd as "PATH -r ROOT -f";  --with-pkgd: the project's
      --pkgd-later         start pkgd only when asked ("ctl ROOT start")
      --env NAME=VALUE     an environment variable for pkgd (repeatable)
      --tool HOST:INSIDE   make a host file visible, read-only, at INSIDE (repeatable)
      --busybox PATH       the busybox to install (default /bin/busybox)
      --opkg PATH          the package tool bound as /bin/opkg (default: the project's, when built)
      --feed DIR           serve DIR on 127.0.0.1 over HTTP, HTTPS (lighttpd) and FTP (pure-ftpd);
                           the base URLs go to ROOT/var/run/sandbox/feed.json
      --feed-pki DIR       the feed's test PKI ("pkgd-feed pki DIR"; default: one made in the root)
      --feed-user USER     require this user (HTTP basic authentication, FTP login) ...
      --feed-password-file FILE   ... with the password on FILE's first line
      --root-size MIB      give the root a file system of MIB mebibytes (a tmpfs)
      --user-namespace     map the caller to root in a user namespace (default unless run as root)
      --ready-timeout MS   how long start-up may take (default 20000)
  pkgd-sandbox build ROOT [--busybox PATH] [--tool HOST:INSIDE]...
  pkgd-sandbox exec ROOT [--env NAME=VALUE]... [--pid-fd N] -- PROGRAM [ARG...]
  pkgd-sandbox ctl ROOT status|start|stop|restart|signal N|restart-broker
)";

int usage(std::string_view problem) {
    if (!problem.empty()) complain(problem);
    std::fputs(kUsageText, stderr);
    return kUsage;
}

bool parse_int(std::string_view text, long long& out) {
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), out);
    return ec == std::errc() && end == text.data() + text.size();
}

// Walks the words after "COMMAND ROOT".
class Args {
public:
    Args(int argc, char** argv, int first) : words_(argv + first, argv + argc) {}
    bool done() const { return next_ >= words_.size(); }
    std::string_view peek() const { return words_[next_]; }
    std::string_view take() { return words_[next_++]; }
    // The value of the option just taken; false when missing.
    bool value(std::string& out) {
        if (done()) return false;
        out = words_[next_++];
        return true;
    }
    std::vector<std::string> rest() { return {words_.begin() + static_cast<long>(next_), words_.end()}; }

private:
    std::vector<std::string> words_;
    std::size_t next_ = 0;
};

bool is_name_value(std::string_view text) {
    return text.find('=') != std::string_view::npos && text.front() != '=';
}

int run_command_line(const fs::path& root, Args& args) {
    LaunchOptions options;
    options.root = root;
    options.broker = project_broker();
    options.opkg = project_opkg();
    options.user_namespace = ::geteuid() != 0;
    bool broker_given = false;
    std::string value;
    while (!args.done()) {
        std::string_view option = args.take();
        if (option == "--broker" && args.value(value)) {
            options.broker = value;
            broker_given = true;
        } else if (option == "--no-broker") {
            options.broker.clear();
            broker_given = true;
        } else if (option == "--sim" && args.value(value)) {
            options.simulator = value;
        } else if (option == "--with-sim") {
            options.simulator = project_simulator();
            if (options.simulator.empty()) return usage("the project's gateway simulator is not built");
        } else if (option == "--sim-notify") {
            options.simulator_notifies = true;
        } else if (option == "--sim-arg" && args.value(value)) {
            options.simulator_args.push_back(value);
        } else if (option == "--pkgd" && args.value(value)) {
            options.pkgd = value;
        } else if (option == "--with-pkgd") {
            options.pkgd = project_pkgd();
            if (options.pkgd.empty()) return usage("the project's pkgd is not built");
        } else if (option == "--pkgd-later") {
            options.pkgd_at_start = false;
        } else if (option == "--env" && args.value(value) && is_name_value(value)) {
            options.pkgd_env.push_back(value);
        } else if (option == "--tool" && args.value(value)) {
            ToolBinding tool;
            if (!parse_tool_binding(value, tool)) return usage("not HOST:/INSIDE: " + value);
            options.tools.push_back(tool);
        } else if (option == "--busybox" && args.value(value)) {
            options.busybox = value;
        } else if (option == "--opkg" && args.value(value)) {
            options.opkg = value;
        } else if (option == "--feed" && args.value(value)) {
            options.feed_dir = value;
        } else if (option == "--feed-pki" && args.value(value)) {
            options.feed_pki = value;
        } else if (option == "--feed-user" && args.value(value)) {
            options.feed_user = value;
        } else if (option == "--feed-password-file" && args.value(value)) {
            options.feed_password_file = value;
        } else if (long long mib = 0;
                   option == "--root-size" && args.value(value) && parse_int(value, mib) && mib > 0) {
            options.root_size_mib = static_cast<std::uint64_t>(mib);
        } else if (option == "--user-namespace") {
            options.user_namespace = true;
        } else if (long long ms = 0;
                   option == "--ready-timeout" && args.value(value) && parse_int(value, ms) && ms > 0) {
            options.ready_timeout = std::chrono::milliseconds(ms);
        } else {
            return usage("bad option or missing value: " + std::string(option));
        }
    }
    if (options.broker.empty() && !broker_given) {
        return usage("the project's ubusd is not built: give --broker PATH or --no-broker");
    }
    if (!options.feed_user.empty() && options.feed_password_file.empty())
        return usage("--feed-user needs --feed-password-file");
    for (fs::path* path : {&options.broker, &options.simulator, &options.pkgd, &options.opkg, &options.feed_dir,
                           &options.feed_pki, &options.feed_password_file}) {
        if (!path->empty()) *path = fs::absolute(*path);
    }
    return launch(options);
}

int build_command_line(const fs::path& root, Args& args) {
    RootSpec spec;
    spec.root = root;
    std::string value;
    while (!args.done()) {
        std::string_view option = args.take();
        ToolBinding tool;
        if (option == "--busybox" && args.value(value)) {
            spec.busybox = value;
        } else if (option == "--tool" && args.value(value) && parse_tool_binding(value, tool)) {
            spec.tools.push_back(tool);
        } else {
            return usage("bad option or missing value: " + std::string(option));
        }
    }
    if (Status s = build_root(spec); !s) {
        complain(s.error());
        return 1;
    }
    return 0;
}

int exec_command_line(const fs::path& root, Args& args) {
    std::vector<std::string> env;
    int pid_fd = -1;
    std::string value;
    while (!args.done() && args.peek() != "--") {
        std::string_view option = args.take();
        long long fd = 0;
        if (option == "--env" && args.value(value) && is_name_value(value)) {
            env.push_back(value);
        } else if (option == "--pid-fd" && args.value(value) && parse_int(value, fd) && fd >= 0 &&
                   fd < 1024) {
            pid_fd = static_cast<int>(fd);
        } else {
            return usage("bad option or missing value: " + std::string(option));
        }
    }
    if (args.done()) return usage("no program given (PROGRAM follows \"--\")");
    args.take();
    std::vector<std::string> argv = args.rest();
    if (argv.empty()) return usage("no program given");
    return exec_inside(root, env, argv, pid_fd);
}

int ctl_command_line(const fs::path& root, Args& args) {
    std::vector<std::string> words = args.rest();
    std::string request;
    for (const auto& w : words) request += (request.empty() ? "" : " ") + w;
    if (request.empty()) return usage("no request given");
    ControlReply reply = control_request(host_path(root, kControlSocket), request, std::chrono::seconds(10));
    std::puts(reply.text.c_str());
    return reply.ok ? 0 : 1;
}

[[noreturn]] void leave(int code) {
    std::fflush(nullptr);
    _exit(code);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) return usage("");
    std::string_view command = argv[1];
    fs::path root = fs::absolute(argv[2]).lexically_normal();
    if (!root.has_filename() && root != root.root_path()) root = root.parent_path();  // no trailing '/'
    Args args(argc, argv, 3);
    // Both leave through _exit: their children are born in the sandbox's PID namespace, where
    // LeakSanitizer's exit-time helper (a child too) could not see them to stop them, and would hang.
    if (command == "run") leave(run_command_line(root, args));
    if (command == "exec") leave(exec_command_line(root, args));
    if (command == "build") return build_command_line(root, args);
    if (command == "ctl") return ctl_command_line(root, args);
    return usage("unknown command: " + std::string(command));
}

#include "cli_bus.hpp"

#include <pty.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <regex>
#include <stdexcept>

#include "poll.hpp"

namespace cli_test {

using namespace std::chrono_literals;

DemoBus::DemoBus() {
    if (::symlink(broker.socket().c_str(), (dir.path() + "/ubus.sock").c_str()) != 0)
        throw std::runtime_error("symlink failed");
    if (client.connect(broker.socket()) != ubus::kOk) throw std::runtime_error("cannot connect");
    std::uint32_t id = 0;
    if (!testsupport::poll_until(5s, [&] { return client.lookup_id("demo", id) == ubus::kOk; }, 10ms))
        throw std::runtime_error("the demo owner did not start");
}

DemoBus& demo_bus() {
    static DemoBus bus;
    return bus;
}

std::ostream& operator<<(std::ostream& os, const Output& o) {
    return os << "exit " << o.exit << "\nstdout: " << o.out << "\nstderr: " << o.err;
}

Output finish(bus_test::Child& cli) {
    const int status = cli.wait();
    return {cli.out, cli.err, bus_test::exit_code(status)};
}

std::string run_in_terminal(const std::string& command) {
    const std::string& dir = demo_bus().dir.path();
    int master = -1;
    const pid_t pid = ::forkpty(&master, nullptr, nullptr, nullptr);
    if (pid < 0) throw std::runtime_error("forkpty");
    if (pid == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        const std::string cli = UBUS_CLI_PATH;
        const char* path = std::getenv("PATH");
        ::setenv("PATH", (cli.substr(0, cli.rfind('/')) + ":" + (path ? path : "/usr/bin:/bin")).c_str(), 1);
        if (::chdir(dir.c_str()) == 0)
            ::execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
        ::_exit(127);
    }
    const ubus::UniqueFd term(master);
    std::string raw;
    char buf[4096];
    // The terminal reports EIO once the last process holding it has gone.
    for (ssize_t n; (n = ::read(term.get(), buf, sizeof buf)) != 0 && (n > 0 || errno == EINTR);)
        raw.append(buf, static_cast<std::size_t>(std::max<ssize_t>(n, 0)));
    ::waitpid(pid, nullptr, 0);
    return std::regex_replace(raw, std::regex("\r\n"), "\n");
}

}  // namespace cli_test

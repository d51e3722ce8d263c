#include "broker_process.hpp"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <thread>

namespace ubusd_test {

namespace {
bool connectable(const std::string& path) {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
    const bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0;
    ::close(fd);
    return ok;
}
}  // namespace

BrokerProcess::BrokerProcess() {
    const char* tmp = std::getenv("TMPDIR");
    std::string templ = std::string(tmp && *tmp ? tmp : "/tmp") + "/ubusd-test.XXXXXX";
    if (!::mkdtemp(templ.data())) throw std::runtime_error("mkdtemp failed");
    dir_ = templ;
    ::chmod(dir_.c_str(), 0755);  // reachable for tests that connect as another user
    // A directory that does not exist yet: the broker creates it.
    socket_ = dir_ + "/run/ubus.sock";

    pid_ = ::fork();
    if (pid_ == 0) {
        // A test that crashes must not leave its broker behind.
        ::prctl(PR_SET_PDEATHSIG, SIGTERM);
        ::execl(UBUSD_PATH, "ubusd", "-s", socket_.c_str(), static_cast<char*>(nullptr));
        ::_exit(127);
    }
    // Readiness is polled: the broker has no other way to say it is listening.
    for (int i = 0; i < 500; ++i) {
        if (connectable(socket_)) return;
        int status;
        if (::waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            throw std::runtime_error("ubusd exited at start");
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    throw std::runtime_error("ubusd did not start listening");
}

int BrokerProcess::stop() {
    if (pid_ < 0) return -1;
    ::kill(pid_, SIGTERM);
    int status = 0;
    ::waitpid(pid_, &status, 0);
    pid_ = -1;
    return status;
}

BrokerProcess::~BrokerProcess() {
    stop();
    ::unlink(socket_.c_str());
    ::rmdir((dir_ + "/run").c_str());
    ::rmdir(dir_.c_str());
}

}  // namespace ubusd_test

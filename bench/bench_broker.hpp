// Our broker as a child process on a scratch socket, for the life of a benchmark.
#pragma once

#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include "ubus/client.hpp"

namespace bench {

class Broker {
public:
    Broker() {
        const char* tmp = std::getenv("TMPDIR");
        dir_ = std::string(tmp && *tmp ? tmp : "/tmp") + "/bench-bus.XXXXXX";
        if (!::mkdtemp(dir_.data())) std::perror("mkdtemp"), std::exit(1);
        socket_ = dir_ + "/ubus.sock";
        pid_ = ::fork();
        if (pid_ == 0) {
            ::execl(UBUSD_PATH, "ubusd", "-s", socket_.c_str(), static_cast<char*>(nullptr));
            ::_exit(127);
        }
        // It has no other way of saying that it listens.
        for (int i = 0; i < 500 && !connectable(); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ~Broker() {
        ::kill(pid_, SIGTERM);
        ::waitpid(pid_, nullptr, 0);
        ::unlink(socket_.c_str());
        ::rmdir(dir_.c_str());
    }
    const std::string& socket() const { return socket_; }

private:
    bool connectable() const {
        ubus::Connection probe;
        return probe.connect(socket_) == ubus::kOk;
    }
    std::string dir_;
    std::string socket_;
    pid_t pid_ = -1;
};

}  // namespace bench

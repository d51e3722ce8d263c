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
        start();
    }
    ~Broker() {
        stop(SIGTERM);
        ::unlink(socket_.c_str());
        ::rmdir(dir_.c_str());
    }
    const std::string& socket() const { return socket_; }

    // Kills the broker as a crash would (no client is told), waits `down`, and starts it again.
    // Returns when it accepts connections again (within a millisecond of it).
    std::chrono::steady_clock::time_point crash_and_restart(std::chrono::milliseconds down) {
        stop(SIGKILL);
        std::this_thread::sleep_for(down);
        start();
        return std::chrono::steady_clock::now();
    }

private:
    void start() {
        pid_ = ::fork();
        if (pid_ == 0) {
            ::execl(UBUSD_PATH, "ubusd", "-s", socket_.c_str(), static_cast<char*>(nullptr));
            ::_exit(127);
        }
        // It has no other way of saying that it listens.
        for (int i = 0; i < 5000 && !connectable(); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    void stop(int signal) {
        ::kill(pid_, signal);
        ::waitpid(pid_, nullptr, 0);
    }
    bool connectable() const {
        ubus::Connection probe;
        return probe.connect(socket_) == ubus::kOk;
    }
    std::string dir_;
    std::string socket_;
    pid_t pid_ = -1;
};

}  // namespace bench

// Stands in for the broker where a test needs only "something accepts connections on the bus
// socket". `--check` just proves the binary can run (its libraries are reachable).
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "unix_socket.hpp"

int main(int argc, char** argv) {
    if (argc == 2 && std::strcmp(argv[1], "--check") == 0) {
        std::puts("fake broker runs");
        return 0;
    }
    if (argc != 3 || std::strcmp(argv[1], "-s") != 0) {
        std::fprintf(stderr, "usage: %s -s SOCKET | --check\n", argv[0]);
        return 2;
    }
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    sigaddset(&stop, SIGINT);
    sigprocmask(SIG_BLOCK, &stop, nullptr);
    ubus::UniqueFd signals(signalfd(-1, &stop, SFD_CLOEXEC));
    std::string error;
    ubus::UniqueFd listener = sandbox::listen_unix(argv[2], SOCK_STREAM, 0666, error);
    if (!listener) {
        std::fprintf(stderr, "%s\n", error.c_str());
        return 1;
    }
    while (true) {
        pollfd fds[2] = {{signals.get(), POLLIN, 0}, {listener.get(), POLLIN, 0}};
        poll(fds, 2, -1);
        if (fds[0].revents != 0) break;
        ubus::UniqueFd client(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    }
    unlink(argv[2]);
    return 0;
}

// ubusd: the bus broker.
//
//   ubusd [-s <socket>] [-A <acl directory>]
//
// Runs in the foreground until SIGINT or SIGTERM. -A is accepted for compatibility with the
// gateway's init scripts, but access-control files are not read: every client, whatever its
// user, may list, call, publish, subscribe, listen and send (only monitoring stays limited to
// root). Run the broker where all clients are trusted.
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <string>

#include "ubus/loop.hpp"
#include "ubus/wire.hpp"
#include "ubusd/broker.hpp"
#include "ubusd/listener.hpp"

namespace {
void usage(const char* prog) {
    std::fprintf(stderr,
                 "Usage: %s [<options>]\n"
                 "Options:\n"
                 "  -s <socket>:\t\tSet the unix domain socket to listen on (default %s)\n"
                 "  -A <path>:\t\tSet the access control directory (accepted, not enforced)\n"
                 "\n",
                 prog, ubus::kDefaultSocket);
}
}  // namespace

int main(int argc, char** argv) {
    std::string socket_path = ubus::kDefaultSocket;
    int opt;
    while ((opt = ::getopt(argc, argv, "s:A:h")) != -1) {
        switch (opt) {
            case 's':
                socket_path = optarg;
                break;
            case 'A':
                break;
            default:
                usage(argv[0]);
                return opt == 'h' ? 0 : 1;
        }
    }
    if (optind < argc) {
        usage(argv[0]);
        return 1;
    }

    // Init scripts send SIGHUP to reload access control; that must not end the broker.
    std::signal(SIGHUP, SIG_IGN);

    ubus::Loop loop;
    std::string error;
    ubus::UniqueFd listener = ubusd::open_listener(socket_path, error);
    if (!listener) {
        std::fprintf(stderr, "ubusd: %s\n", error.c_str());
        return 1;
    }
    {
        ubusd::Broker broker(loop, std::move(listener));
        loop.run();
    }
    ::unlink(socket_path.c_str());
    return 0;
}

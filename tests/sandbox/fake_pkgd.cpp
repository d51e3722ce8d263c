// Stands in for pkgd when testing the launcher: it takes pkgd's command line, changes root, leaves
// a note of what it saw in /tmp/fake-pkgd.txt, logs one record, connects to the bus socket (exit
// 255 when that fails, as pkgd does) and then runs until SIGTERM (exit 0).
#include <signal.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "sandbox/root_paths.hpp"
#include "unix_socket.hpp"

int main(int argc, char** argv) {
    if (argc != 4 || std::strcmp(argv[1], "-r") != 0 || std::strcmp(argv[3], "-f") != 0) {
        std::fprintf(stderr, "usage: %s -r ROOT -f\n", argv[0]);
        return 2;
    }
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    sigprocmask(SIG_BLOCK, &stop, nullptr);
    if (chroot(argv[2]) != 0 || chdir("/") != 0) {
        std::perror("chroot");
        return 3;
    }
    const char* env = std::getenv("EXECENV_INDEX");
    {
        std::ofstream note("/tmp/fake-pkgd.txt", std::ios::app);
        note << "root=" << argv[2] << " env=" << (env ? env : "(unset)") << " pid=" << getpid() << '\n';
    }
    openlog("fake-pkgd", LOG_PID, LOG_DAEMON);
    syslog(LOG_INFO, "started for %s", env ? env : "System");
    if (!sandbox::connect_unix(std::string(sandbox::kBusSocket), SOCK_STREAM)) return 255;
    int sig = 0;
    sigwait(&stop, &sig);
    return 0;
}

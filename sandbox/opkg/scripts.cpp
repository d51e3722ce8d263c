#include "scripts.hpp"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "files.hpp"

namespace opkg {

std::string run_script(const std::string& script, const std::string& action, const std::string& root) {
    struct stat st {};
    if (::lstat(script.c_str(), &st) != 0) return {};
    const std::string pkg_root = "PKG_ROOT=" + (root.empty() ? std::string("/") : root);
    const char* argv[] = {script.c_str(), action.c_str(), nullptr};
    const char* envp[] = {"PATH=/usr/sbin:/usr/bin:/sbin:/bin", pkg_root.c_str(), nullptr};
    const pid_t pid = ::fork();
    if (pid < 0) return "cannot start " + script + ": " + errno_text();
    if (pid == 0) {
        if (::chdir("/") == 0)
            ::execve(argv[0], const_cast<char* const*>(argv), const_cast<char* const*>(envp));
        _exit(127);
    }
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) return "lost " + script + ": " + errno_text();
    }
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return {};
    if (WIFEXITED(status))
        return script + " " + action + " failed with exit status " + std::to_string(WEXITSTATUS(status));
    return script + " " + action + " was killed by signal " + std::to_string(WTERMSIG(status));
}

}  // namespace opkg

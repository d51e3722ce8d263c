#include "namespaces.hpp"

#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <string>
#include <system_error>

#include "mounts.hpp"
#include "ubus/fd.hpp"

namespace sandbox {
namespace {

Status write_file(const std::string& path, const std::string& text) {
    ubus::UniqueFd fd(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
    if (!fd || ::write(fd.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        return Status::failure(system_error("write " + path, errno));
    }
    return {};
}

}  // namespace

Status enter_new_namespaces(bool user_namespace) {
    const uid_t uid = ::getuid();
    const gid_t gid = ::getgid();
    int flags = CLONE_NEWNS | CLONE_NEWPID | (user_namespace ? CLONE_NEWUSER : 0);
    if (::unshare(flags) != 0) return Status::failure(system_error("create namespaces", errno));
    if (user_namespace) {
        // An unprivileged user may map only itself, and only once supplementary groups are frozen.
        if (Status s = write_file("/proc/self/setgroups", "deny"); !s) return s;
        if (Status s = write_file("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1\n"); !s) return s;
        if (Status s = write_file("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1\n"); !s) return s;
    }
    return make_mounts_private();
}

Status join_namespaces(pid_t pid) {
    struct Target {
        const char* kind;
        int type;
    };
    constexpr std::array<Target, 3> kTargets = {
        {{"user", CLONE_NEWUSER}, {"mnt", CLONE_NEWNS}, {"pid", CLONE_NEWPID}}};
    // Open all first: joining the mount namespace changes what paths lead to.
    std::array<ubus::UniqueFd, kTargets.size()> fds;
    for (std::size_t i = 0; i < kTargets.size(); ++i) {
        std::string path = "/proc/" + std::to_string(pid) + "/ns/" + kTargets[i].kind;
        fds[i].reset(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
        if (!fds[i]) return Status::failure(system_error("open " + path, errno));
    }
    for (std::size_t i = 0; i < kTargets.size(); ++i) {
        // Joining the namespace one is already in is refused for user namespaces; skip it for all.
        if (namespace_id(::getpid(), kTargets[i].kind) == namespace_id(pid, kTargets[i].kind)) continue;
        if (::setns(fds[i].get(), kTargets[i].type) != 0) {
            return Status::failure(
                system_error(std::string("join ") + kTargets[i].kind + " namespace", errno));
        }
    }
    return {};
}

std::string namespace_id(pid_t pid, const char* kind) {
    std::error_code ec;
    auto link = std::filesystem::read_symlink("/proc/" + std::to_string(pid) + "/ns/" + kind, ec);
    return ec ? std::string() : link.string();
}

}  // namespace sandbox

#include "rooted.hpp"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace opkg {

UniqueFd RootDir::open_dir(std::string_view relative) const {
    const std::string path = relative.empty() ? std::string(".") : std::string(relative);
    open_how how{};
    how.flags = O_PATH | O_DIRECTORY | O_CLOEXEC;
    how.resolve = RESOLVE_IN_ROOT | RESOLVE_NO_MAGICLINKS;
    return UniqueFd(static_cast<int>(::syscall(SYS_openat2, fd.get(), path.c_str(), &how, sizeof how)));
}

RootDir open_root(const std::string& host_path) {
    const std::string path = host_path.empty() ? std::string("/") : host_path;
    return RootDir{UniqueFd(::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC))};
}

std::pair<std::string, std::string> split_parent(std::string_view relative) {
    const std::size_t slash = relative.rfind('/');
    if (slash == std::string_view::npos) return {std::string{}, std::string(relative)};
    return {std::string(relative.substr(0, slash)), std::string(relative.substr(slash + 1))};
}

}  // namespace opkg

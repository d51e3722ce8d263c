#include "unix_socket.hpp"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "sandbox/status.hpp"

namespace sandbox {
namespace {

bool make_address(const std::filesystem::path& path, sockaddr_un& addr) {
    const std::string& text = path.native();
    if (text.size() >= sizeof addr.sun_path) return false;
    addr = {};
    addr.sun_family = AF_UNIX;
    std::memcpy(addr.sun_path, text.c_str(), text.size() + 1);
    return true;
}

}  // namespace

ubus::UniqueFd listen_unix(const std::filesystem::path& path, int type, mode_t mode, std::string& error) {
    sockaddr_un addr;
    if (!make_address(path, addr)) {
        error = "socket path too long: " + path.string();
        return {};
    }
    ubus::UniqueFd fd(::socket(AF_UNIX, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!fd) {
        error = system_error("socket", errno);
        return {};
    }
    ::unlink(path.c_str());
    if (::bind(fd.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0) {
        error = system_error("bind " + path.string(), errno);
        return {};
    }
    ::chmod(path.c_str(), mode);
    if (type == SOCK_STREAM && ::listen(fd.get(), 16) != 0) {
        error = system_error("listen " + path.string(), errno);
        return {};
    }
    return fd;
}

ubus::UniqueFd connect_unix(const std::filesystem::path& path, int type) {
    sockaddr_un addr;
    if (!make_address(path, addr)) return {};
    ubus::UniqueFd fd(::socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
    if (!fd) return {};
    int r;
    do {
        r = ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof addr);
    } while (r != 0 && errno == EINTR);
    if (r != 0) return {};
    return fd;
}

}  // namespace sandbox

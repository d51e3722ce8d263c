#include "ubusd/listener.hpp"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace ubusd {

namespace {
std::string failure(const char* what, const std::string& path) {
    return std::string(what) + " " + path + ": " + std::strerror(errno);
}
}  // namespace

ubus::UniqueFd open_listener(const std::string& path, std::string& error) {
    sockaddr_un addr{};
    if (path.empty() || path.size() >= sizeof(addr.sun_path)) {
        error = "socket path too long or empty: " + path;
        return {};
    }
    const auto slash = path.rfind('/');
    if (slash != std::string::npos && slash > 0) {
        const std::string dir = path.substr(0, slash);
        if (::mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST) {
            error = failure("cannot create directory", dir);
            return {};
        }
    }
    if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
        error = failure("cannot remove", path);
        return {};
    }

    ubus::UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!fd) {
        error = failure("cannot create socket for", path);
        return {};
    }
    addr.sun_family = AF_UNIX;
    std::memcpy(addr.sun_path, path.data(), path.size());
    if (::bind(fd.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) != 0) {
        error = failure("cannot bind", path);
        return {};
    }
    if (::chmod(path.c_str(), 0666) != 0) {
        error = failure("cannot make connectable", path);
        return {};
    }
    if (::listen(fd.get(), SOMAXCONN) != 0) {
        error = failure("cannot listen on", path);
        return {};
    }
    return fd;
}

}  // namespace ubusd

#include "durable_file.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "ubus/fd.hpp"

namespace pkgd {
namespace {

std::string_view directory_of(std::string_view path) {
    const std::size_t slash = path.rfind('/');
    if (slash == std::string_view::npos) return ".";
    if (slash == 0) return "/";
    return path.substr(0, slash);
}

bool write_all(int fd, std::string_view content) {
    while (!content.empty()) {
        const ssize_t n = ::write(fd, content.data(), content.size());
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        content.remove_prefix(static_cast<std::size_t>(n));
    }
    return true;
}

// Best effort: on file systems that cannot sync a directory the rename still happened.
void sync_directory(std::string_view dir) {
    const ubus::UniqueFd fd(::open(std::string(dir).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fd) ::fsync(fd.get());
}

// Writes and flushes the temporary file; closing is part of it, as some file systems report
// write errors only then.
bool write_temporary(const std::string& temp, std::string_view content) {
    // O_NOFOLLOW: a planted symbolic link must not redirect the write. The mode is the usual
    // 0666 less the umask, as for any file the process creates.
    ubus::UniqueFd fd(::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0666));
    if (!fd) return false;
    if (!write_all(fd.get(), content) || ::fsync(fd.get()) != 0) return false;
    return ::close(fd.release()) == 0;
}

}  // namespace

bool replace_file(const std::string& path, std::string_view content) {
    const std::string_view dir = directory_of(path);
    const std::string_view name = std::string_view(path).substr(path.rfind('/') + 1);
    if (name.empty()) return false;
    std::string temp;
    temp.reserve(path.size() + 24);
    temp.append(path, 0, path.size() - name.size()).append(".").append(name).append(".tmp.");
    temp.append(std::to_string(::getpid()));

    if (!write_temporary(temp, content) || ::rename(temp.c_str(), path.c_str()) != 0) {
        ::unlink(temp.c_str());
        return false;
    }
    sync_directory(dir);
    return true;
}

bool remove_file(const std::string& path) {
    if (::unlink(path.c_str()) != 0) return false;
    sync_directory(directory_of(path));
    return true;
}

}  // namespace pkgd

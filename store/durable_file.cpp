#include "durable_file.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <utility>

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

// Creates the temporary file next to the target. O_EXCL: a file already there, be it a planted
// symbolic link or one left by a writer killed before, is never written through nor reused with
// its old mode; another name is tried instead.
ubus::UniqueFd create_temporary(std::string_view dir, std::string& temp, mode_t mode) {
    static std::atomic<unsigned> count{0};
    for (int attempt = 0; attempt < 16; ++attempt) {
        temp.assign(dir).append("/.tmp.").append(std::to_string(::getpid()));
        temp.append(".").append(std::to_string(count.fetch_add(1, std::memory_order_relaxed)));
        ubus::UniqueFd fd(::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
        if (fd || errno != EEXIST) return fd;
    }
    return ubus::UniqueFd();
}

// Writes and flushes the temporary file; closing is part of it, as some file systems report
// write errors only then.
bool write_and_flush(ubus::UniqueFd fd, std::string_view content) {
    if (!write_all(fd.get(), content) || ::fsync(fd.get()) != 0) return false;
    return ::close(fd.release()) == 0;
}

}  // namespace

bool replace_file(const std::string& path, std::string_view content, mode_t mode) {
    const std::string_view dir = directory_of(path);
    if (path.empty() || path.back() == '/') return false;
    std::string temp;
    ubus::UniqueFd fd = create_temporary(dir, temp, mode);
    if (!fd) return false;
    if (!write_and_flush(std::move(fd), content) || ::rename(temp.c_str(), path.c_str()) != 0) {
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

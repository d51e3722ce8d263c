#include "durable_file.hpp"

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <charconv>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>

namespace pkgd {
namespace {

constexpr std::string_view kTemporaryPrefix = ".tmp.";

std::string directory_of(std::string_view path) {
    const std::size_t slash = path.rfind('/');
    if (slash == std::string_view::npos) return ".";
    if (slash == 0) return "/";
    return std::string(path.substr(0, slash));
}

// Creates the temporary file next to the target. Exclusive creation: a file already there, be it
// a planted symbolic link or one left by a writer killed before, is never written through nor
// reused with its old mode; another name is tried instead.
IoFd create_temporary(FileIo& io, const std::string& dir, std::string& temp, mode_t mode) {
    static std::atomic<unsigned> count{0};
    for (int attempt = 0; attempt < 16; ++attempt) {
        temp.assign(dir).append("/").append(kTemporaryPrefix).append(std::to_string(::getpid()));
        temp.append(".").append(std::to_string(count.fetch_add(1, std::memory_order_relaxed)));
        IoFd fd(io, io.create(temp.c_str(), mode));
        if (fd || errno != EEXIST) return fd;
    }
    return IoFd(io, -1);
}

// Writes and flushes the temporary file; closing is part of it, as some file systems report
// write errors only then. Without the flush before the rename a power cut could leave the new
// name on storage with no data behind it: an empty record.
bool write_and_flush(FileIo& io, IoFd fd, std::string_view content) {
    return write_fully(io, fd.get(), content) && io.fsync(fd.get()) == 0 && fd.close() == 0;
}

// The directory flush is what makes a rename or an unlink itself durable. A file system that
// cannot flush a directory has made the change all the same: the caller is not told otherwise.
void sync_directory(FileIo& io, const std::string& dir) {
    (void)io.sync_directory(dir.c_str());
}

// The writer's pid in the name of a temporary file replace_file made; nothing for another name.
std::optional<pid_t> temporary_writer(std::string_view name) {
    if (!name.starts_with(kTemporaryPrefix)) return std::nullopt;
    name.remove_prefix(kTemporaryPrefix.size());
    pid_t pid = 0;
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), pid);
    if (error != std::errc() || pid <= 0 || end == name.data() + name.size() || *end != '.')
        return std::nullopt;
    return pid;
}

}  // namespace

void remove_stale_temporaries(FileIo& io, const std::string& dir) {
    std::error_code ec;
    for (std::filesystem::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
        const std::optional<pid_t> writer = temporary_writer(it->path().filename().string());
        if (writer && (*writer == ::getpid() || (::kill(*writer, 0) != 0 && errno == ESRCH)))
            remove_file(io, it->path().string());
    }
}

bool replace_file(const std::string& path, std::string_view content, mode_t mode) {
    return replace_file(posix_file_io(), path, content, mode);
}

bool replace_file(FileIo& io, const std::string& path, std::string_view content, mode_t mode) {
    if (path.empty() || path.back() == '/') return false;
    const std::string dir = directory_of(path);
    std::string temp;
    IoFd fd = create_temporary(io, dir, temp, mode);
    if (!fd) return false;
    if (!write_and_flush(io, std::move(fd), content) || io.rename(temp.c_str(), path.c_str()) != 0) {
        io.unlink(temp.c_str());
        return false;
    }
    sync_directory(io, dir);
    return true;
}

bool remove_file(const std::string& path) {
    return remove_file(posix_file_io(), path);
}

bool remove_file(FileIo& io, const std::string& path) {
    if (io.unlink(path.c_str()) != 0) return false;
    sync_directory(io, directory_of(path));
    return true;
}

bool make_directory(FileIo& io, const std::string& path, mode_t mode) {
    if (io.mkdir(path.c_str(), mode) != 0) return errno == EEXIST;
    sync_directory(io, directory_of(path));
    return true;
}

}  // namespace pkgd

#include "pkgd/file_io.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "ubus/fd.hpp"

namespace pkgd {
namespace {

class PosixFileIo final : public FileIo {
public:
    int create(const char* path, mode_t mode) override {
        return ::open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
    }
    ssize_t write(int fd, const void* data, std::size_t size) override { return ::write(fd, data, size); }
    int fsync(int fd) override { return ::fsync(fd); }
    int close(int fd) override { return ::close(fd); }
    int rename(const char* from, const char* to) override { return ::rename(from, to); }
    int unlink(const char* path) override { return ::unlink(path); }
    int mkdir(const char* path, mode_t mode) override { return ::mkdir(path, mode); }
    int sync_directory(const char* path) override {
        const ubus::UniqueFd fd(::open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        return fd ? ::fsync(fd.get()) : -1;
    }
};

}  // namespace

FileIo& posix_file_io() {
    static PosixFileIo io;
    return io;
}

bool write_fully(FileIo& io, int fd, std::string_view content) {
    while (!content.empty()) {
        const ssize_t n = io.write(fd, content.data(), content.size());
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        content.remove_prefix(static_cast<std::size_t>(n));
    }
    return true;
}

}  // namespace pkgd

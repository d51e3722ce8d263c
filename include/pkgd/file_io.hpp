// The file-system calls that durable record writes are made of, behind one small interface, so
// that a storage which loses power at any one of them can stand in for the real one. Each call
// mirrors its POSIX namesake: 0 (or a descriptor, or a byte count) on success, -1 with errno set
// on failure. The interface is called per system call, never per byte: the real one adds one
// indirect call to each and copies nothing.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string_view>
#include <utility>

namespace pkgd {

class FileIo {
public:
    virtual ~FileIo() = default;
    // A new file for writing only: exclusive creation, a symbolic link at `path` not followed.
    virtual int create(const char* path, mode_t mode) = 0;
    virtual ssize_t write(int fd, const void* data, std::size_t size) = 0;
    virtual int fsync(int fd) = 0;
    virtual int close(int fd) = 0;
    virtual int rename(const char* from, const char* to) = 0;
    virtual int unlink(const char* path) = 0;
    virtual int mkdir(const char* path, mode_t mode) = 0;
    // Flushes the directory's entries (names created, renamed or removed in it) to storage.
    virtual int sync_directory(const char* path) = 0;
};

// The process's own file system.
FileIo& posix_file_io();

// A descriptor of `io`, closed through it.
class IoFd {
public:
    IoFd(FileIo& io, int fd) : io_(&io), fd_(fd) {}
    IoFd(IoFd&& o) noexcept : io_(o.io_), fd_(std::exchange(o.fd_, -1)) {}
    IoFd(const IoFd&) = delete;
    IoFd& operator=(const IoFd&) = delete;
    IoFd& operator=(IoFd&&) = delete;
    ~IoFd() {
        if (fd_ >= 0) io_->close(fd_);
    }
    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    // Closes now, as the result of the close matters: some file systems report write errors only then.
    int close() { return io_->close(std::exchange(fd_, -1)); }

private:
    FileIo* io_;
    int fd_;
};

// Writes all of `content`, going on after short writes and interruptions.
bool write_fully(FileIo& io, int fd, std::string_view content);

}  // namespace pkgd

// Descriptors and whole-file reads and writes of the tool's own state files.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace opkg {

class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept;
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    ~UniqueFd();

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }

private:
    int fd_ = -1;
};

// The whole file; nullopt with `error` set when it cannot be read.
std::optional<std::string> read_file(const std::string& path, std::string* error = nullptr);

bool write_all(int fd, std::string_view data);

// Writes `content` to a fresh file beside `path` and renames it over `path`, so a reader sees the
// old file or the new one, never a part. Empty result: done; otherwise why not.
std::string replace_file(const std::string& path, std::string_view content, mode_t mode);

// strerror(errno) as a std::string.
std::string errno_text();

}  // namespace opkg

// Descriptors and whole-file reads and writes of the tool's own state files.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "ubus/fd.hpp"

namespace opkg {

// The project's owning descriptor: one implementation for the tool and the daemon.
using UniqueFd = ubus::UniqueFd;

// The whole file; nullopt with `error` set when it cannot be read.
std::optional<std::string> read_file(const std::string& path, std::string* error = nullptr);

// A file mapped read-only, for reading a package of megabytes without copying it into memory
// first. Unmapped when destroyed. Only for files nobody else writes meanwhile (a package the
// caller downloaded): one cut short under the mapping would fault the reader.
class MappedFile {
public:
    MappedFile() = default;
    MappedFile(MappedFile&& other) noexcept
        : data_(std::exchange(other.data_, nullptr)), size_(std::exchange(other.size_, 0)) {}
    MappedFile& operator=(MappedFile&&) = delete;
    MappedFile(const MappedFile&) = delete;
    MappedFile& operator=(const MappedFile&) = delete;
    ~MappedFile();

    // The regular file's contents; nullopt with `error` set when it cannot be mapped.
    static std::optional<MappedFile> open(const std::string& path, std::string& error);
    std::string_view bytes() const { return {static_cast<const char*>(data_), size_}; }

private:
    MappedFile(void* data, std::size_t size) : data_(data), size_(size) {}
    void* data_ = nullptr;
    std::size_t size_ = 0;
};

bool write_all(int fd, std::string_view data);

// Writes `content` to a fresh file beside `path` and renames it over `path`, so a reader sees the
// old file or the new one, never a part. Empty result: done; otherwise why not.
std::string replace_file(const std::string& path, std::string_view content, mode_t mode);

// strerror(errno) as a std::string.
std::string errno_text();

}  // namespace opkg

#include "files.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace opkg {

std::string errno_text() {
    return std::strerror(errno);
}

std::optional<std::string> read_file(const std::string& path, std::string* error) {
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) {
        if (error) *error = path + ": " + errno_text();
        return std::nullopt;
    }
    // Sized up front: a package is megabytes, and growing the string by doubling copies and
    // faults in its pages several times over.
    std::string out;
    struct stat st {};
    if (::fstat(fd.get(), &st) == 0 && S_ISREG(st.st_mode)) out.reserve(static_cast<std::size_t>(st.st_size));
    char buffer[65536];
    for (;;) {
        const ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
        if (n == 0) return out;
        if (n < 0) {
            if (errno == EINTR) continue;
            if (error) *error = path + ": " + errno_text();
            return std::nullopt;
        }
        out.append(buffer, static_cast<std::size_t>(n));
    }
}

MappedFile::~MappedFile() {
    if (data_ != nullptr) ::munmap(data_, size_);
}

std::optional<MappedFile> MappedFile::open(const std::string& path, std::string& error) {
    const UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat st {};
    if (!fd || ::fstat(fd.get(), &st) != 0) {
        error = path + ": " + errno_text();
        return std::nullopt;
    }
    if (!S_ISREG(st.st_mode)) {
        error = path + ": not a regular file";
        return std::nullopt;
    }
    if (st.st_size == 0) return MappedFile();  // mmap refuses an empty length
    const auto size = static_cast<std::size_t>(st.st_size);
    void* data = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_POPULATE, fd.get(), 0);
    if (data == MAP_FAILED) {
        error = path + ": " + errno_text();
        return std::nullopt;
    }
    return MappedFile(data, size);
}

bool write_all(int fd, std::string_view data) {
    while (!data.empty()) {
        const ssize_t n = ::write(fd, data.data(), data.size());
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        data.remove_prefix(static_cast<std::size_t>(n));
    }
    return true;
}

std::string replace_file(const std::string& path, std::string_view content, mode_t mode) {
    const std::size_t slash = path.rfind('/');
    const std::string dir = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    const std::string leaf = slash == std::string::npos ? path : path.substr(slash + 1);
    std::string pattern = dir + "." + leaf + ".XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    UniqueFd fd(::mkostemp(name.data(), O_CLOEXEC));
    if (!fd) return path + ": cannot create a file beside it: " + errno_text();
    const bool written =
        write_all(fd.get(), content) && ::fchmod(fd.get(), mode) == 0 && ::fsync(fd.get()) == 0;
    const std::string failure = written ? std::string{} : path + ": " + errno_text();
    fd = UniqueFd();
    if (!written || ::rename(name.data(), path.c_str()) != 0) {
        const std::string reason = written ? path + ": " + errno_text() : failure;
        ::unlink(name.data());
        return reason;
    }
    return {};
}

}  // namespace opkg

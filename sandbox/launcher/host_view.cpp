#include "host_view.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string>
#include <system_error>
#include <vector>

#include "mounts.hpp"
#include "sandbox/root_paths.hpp"
#include "ubus/fd.hpp"

namespace sandbox {
namespace {

namespace fs = std::filesystem;

constexpr std::array<std::string_view, 7> kHostPaths = {
    "/lib", "/lib64", "/usr/lib", "/usr/lib64", "/usr/share/zoneinfo", "/etc/ld.so.cache", "/etc/localtime",
};

// Device nodes, bound from the host; unlike the rest they stay writable.
constexpr std::array<std::string_view, 4> kDevices = {"/dev/null", "/dev/zero", "/dev/random",
                                                      "/dev/urandom"};

enum class Kind { kAbsent, kLink, kDirectory, kFile };

Kind kind_of(const fs::path& path) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) return Kind::kAbsent;
    if (S_ISLNK(st.st_mode)) return Kind::kLink;
    if (S_ISDIR(st.st_mode)) return Kind::kDirectory;
    return Kind::kFile;
}

Status prepare_one(const fs::path& host, const fs::path& mirror) {
    Kind host_kind = kind_of(host);
    if (host_kind == Kind::kAbsent || kind_of(mirror) != Kind::kAbsent) return {};
    std::error_code ec;
    fs::create_directories(mirror.parent_path(), ec);
    switch (host_kind) {
        case Kind::kLink:
            fs::create_symlink(fs::read_symlink(host, ec), mirror, ec);
            break;
        case Kind::kDirectory:
            fs::create_directories(mirror, ec);
            break;
        case Kind::kFile: {
            ubus::UniqueFd fd(::open(mirror.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
            if (!fd) ec.assign(errno, std::generic_category());
            break;
        }
        case Kind::kAbsent:
            break;
    }
    if (ec) return Status::failure("cannot create " + mirror.string() + ": " + ec.message());
    return {};
}

// The root's own directories in `dir`, kept open so that they can still be reached once the
// union of the root's and the host's directory covers them.
std::vector<std::pair<std::string, ubus::UniqueFd>> own_subdirectories(const fs::path& dir) {
    std::vector<std::pair<std::string, ubus::UniqueFd>> out;
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(dir, ec)) {
        if (!entry.is_directory(ec) || entry.is_symlink(ec)) continue;
        ubus::UniqueFd fd(::open(entry.path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        if (fd) out.emplace_back(entry.path().filename().string(), std::move(fd));
    }
    return out;
}

Status mount_directory(const fs::path& host, const fs::path& mirror) {
    std::error_code ec;
    if (fs::is_empty(mirror, ec) || ec) return bind_read_only(host, mirror);
    auto own = own_subdirectories(mirror);
    if (Status s = overlay_read_only({mirror, host}, mirror); !s) return s;
    for (const auto& [name, fd] : own) {
        if (Status s = bind("/proc/self/fd/" + std::to_string(fd.get()), mirror / name); !s) return s;
    }
    return {};
}

}  // namespace

Status prepare_host_view(const fs::path& root) {
    for (std::string_view device : kDevices) {
        if (Status s = prepare_one(device, host_path(root, device)); !s) return s;
    }
    for (std::string_view path : kHostPaths) {
        if (Status s = prepare_one(path, host_path(root, path)); !s) return s;
    }
    return {};
}

Status mount_host_view(const fs::path& root) {
    for (std::string_view device : kDevices) {
        if (Status s = bind(device, host_path(root, device)); !s) return s;
    }
    for (std::string_view path : kHostPaths) {
        fs::path host(path);
        fs::path mirror = host_path(root, path);
        Kind host_kind = kind_of(host);
        if (host_kind == Kind::kAbsent || host_kind == Kind::kLink) continue;
        if (kind_of(mirror) != (host_kind == Kind::kDirectory ? Kind::kDirectory : Kind::kFile)) {
            return Status::failure(mirror.string() + " is not a mount point for " + host.string());
        }
        Status s =
            host_kind == Kind::kDirectory ? mount_directory(host, mirror) : bind_read_only(host, mirror);
        if (!s) return s;
    }
    return {};
}

}  // namespace sandbox

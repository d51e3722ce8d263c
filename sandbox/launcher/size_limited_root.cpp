#include "size_limited_root.hpp"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>

#include "mounts.hpp"
#include "ubus/fd.hpp"

namespace sandbox {
namespace {

namespace fs = std::filesystem;

bool kept(const fs::path& relative) {
    for (std::string_view dir : kHostKeptDirs)
        if (relative == fs::path(dir).relative_path()) return true;
    return false;
}

// Copies `from` into `to` (an existing directory) with modes and owners; sockets and other special
// files are left out. `relative` is where `to` lies within the root.
Status copy_tree(const fs::path& from, const fs::path& to, const fs::path& relative) {
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(from, ec)) {
        const fs::path source = entry.path();
        const fs::path target = to / source.filename();
        const fs::path rel = relative / source.filename();
        struct stat st{};
        if (::lstat(source.c_str(), &st) != 0) continue;
        if (S_ISLNK(st.st_mode)) {
            fs::create_symlink(fs::read_symlink(source, ec), target, ec);
        } else if (S_ISDIR(st.st_mode)) {
            fs::create_directory(target, ec);
            if (!ec && !kept(rel)) {
                if (Status s = copy_tree(source, target, rel); !s) return s;
            }
            ::chmod(target.c_str(), st.st_mode & 07777);
        } else if (S_ISREG(st.st_mode)) {
            fs::copy_file(source, target, ec);
            ::chmod(target.c_str(), st.st_mode & 07777);
        } else {
            continue;
        }
        if (ec) {
            return Status::failure("cannot copy " + rel.string() + " into the size-limited root: " + ec.message());
        }
        [[maybe_unused]] int ignored = ::lchown(target.c_str(), st.st_uid, st.st_gid);
    }
    if (ec) return Status::failure("cannot read " + from.string() + ": " + ec.message());
    return {};
}

}  // namespace

Status mount_size_limited_root(const fs::path& root, std::uint64_t mib) {
    // The host's directory, still reachable through this descriptor once the tmpfs covers it.
    ubus::UniqueFd host(::open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!host) return Status::failure(system_error("open " + root.string(), errno));
    const fs::path host_dir = "/proc/self/fd/" + std::to_string(host.get());
    struct stat st{};
    if (::stat(root.c_str(), &st) != 0) return Status::failure(system_error("stat " + root.string(), errno));

    char mode[8];
    std::snprintf(mode, sizeof mode, "%o", static_cast<unsigned>(st.st_mode & 0777));
    const std::string options = "size=" + std::to_string(mib) + "m,mode=" + mode;
    if (::mount("tmpfs", root.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, options.c_str()) != 0)
        return Status::failure(system_error("mount a " + std::to_string(mib) + " MiB tmpfs on " + root.string(), errno));
    [[maybe_unused]] int ignored = ::chown(root.c_str(), st.st_uid, st.st_gid);
    if (Status s = copy_tree(host_dir, root, ""); !s) return s;
    for (std::string_view dir : kHostKeptDirs) {
        if (Status s = bind(host_dir / fs::path(dir).relative_path(), root / fs::path(dir).relative_path()); !s)
            return s;
    }
    return {};
}

}  // namespace sandbox

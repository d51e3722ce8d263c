#include "mounts.hpp"

#include <sys/mount.h>
#include <sys/statvfs.h>

#include <cerrno>
#include <string>

namespace sandbox {
namespace {

Status failed(const std::string& what, int err) {
    return Status::failure(system_error(what, err));
}

// The flags a read-only remount must repeat: inside a user namespace the kernel refuses to drop
// nosuid/nodev/noexec/atime settings that the original mount has (they are locked).
unsigned long kept_flags(const std::filesystem::path& target) {
    struct statvfs info {};
    if (::statvfs(target.c_str(), &info) != 0) return 0;
    unsigned long flags = 0;
    if (info.f_flag & ST_NOSUID) flags |= MS_NOSUID;
    if (info.f_flag & ST_NODEV) flags |= MS_NODEV;
    if (info.f_flag & ST_NOEXEC) flags |= MS_NOEXEC;
    if (info.f_flag & ST_NOATIME) flags |= MS_NOATIME;
    if (info.f_flag & ST_NODIRATIME) flags |= MS_NODIRATIME;
    if (info.f_flag & ST_RELATIME) flags |= MS_RELATIME;
    return flags;
}

// Overlay option values separate layers with ':' and options with ','.
std::string escaped_layer(const std::string& path) {
    std::string out;
    for (char c : path) {
        if (c == ':' || c == ',' || c == '\\') out += '\\';
        out += c;
    }
    return out;
}

}  // namespace

Status make_mounts_private() {
    if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        return failed("make mounts private", errno);
    }
    return {};
}

Status mount_proc(const std::filesystem::path& target) {
    if (::mount("proc", target.c_str(), "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) != 0) {
        return failed("mount proc on " + target.string(), errno);
    }
    return {};
}

Status bind(const std::filesystem::path& source, const std::filesystem::path& target) {
    if (::mount(source.c_str(), target.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0) {
        return failed("bind " + source.string() + " on " + target.string(), errno);
    }
    return {};
}

Status bind_read_only(const std::filesystem::path& source, const std::filesystem::path& target) {
    if (Status s = bind(source, target); !s) return s;
    unsigned long flags = MS_BIND | MS_REMOUNT | MS_RDONLY | kept_flags(target);
    if (::mount(nullptr, target.c_str(), nullptr, flags, nullptr) != 0) {
        return failed("make " + target.string() + " read-only", errno);
    }
    return {};
}

Status overlay_read_only(const std::vector<std::filesystem::path>& layers,
                         const std::filesystem::path& target) {
    std::string options = "lowerdir=";
    for (std::size_t i = 0; i < layers.size(); ++i) {
        if (i > 0) options += ':';
        options += escaped_layer(layers[i].string());
    }
    if (::mount("overlay", target.c_str(), "overlay", MS_RDONLY, options.c_str()) != 0) {
        return failed("mount overlay on " + target.string(), errno);
    }
    return {};
}

}  // namespace sandbox

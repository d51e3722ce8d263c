#include "sandbox/root_builder.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>

#include "host_view.hpp"
#include "sandbox/process.hpp"
#include "sandbox/root_paths.hpp"
#include "ubus/fd.hpp"

namespace sandbox {
namespace {

namespace fs = std::filesystem;

struct Dir {
    std::string_view path;
    mode_t mode;
};

// The gateway's layout plus the mount points and state directories of the sandbox itself.
constexpr std::array<Dir, 26> kDirectories = {{
    {"/bin", 0755},
    {"/sbin", 0755},
    {"/usr/bin", 0755},
    {"/usr/sbin", 0755},
    {"/usr/local/bin", 0755},
    {"/usr/local/sbin", 0755},
    {"/usr/local/package/pkg", 0755},
    {"/usr/local/package/du", 0755},
    {"/usr/local/package/eu", 0755},
    {"/usr/local/package/ee", 0755},
    {"/usr/lib/opkg/info", 0755},
    {"/usr/lib/opkg/lists", 0755},
    {"/etc/opkg", 0755},
    {"/etc/init.d", 0755},
    {"/var/run/ubus", 0755},
    {"/var/run/sandbox", 0755},
    {"/var/log", 0755},
    {"/var/lock", 0755},
    {"/var/tmp", 01777},
    {"/tmp", 01777},
    {"/root", 0700},
    {"/proc", 0555},
    {"/dev", 0755},
    {"/dev/shm", 01777},
    {"/dev/pts", 0755},
    {"/opt/pkgd/bin", 0755},
}};

struct Link {
    std::string_view path;
    std::string_view target;
};
constexpr std::array<Link, 4> kLinks = {{
    {"/dev/fd", "/proc/self/fd"},
    {"/dev/stdin", "/proc/self/fd/0"},
    {"/dev/stdout", "/proc/self/fd/1"},
    {"/dev/stderr", "/proc/self/fd/2"},
}};

struct File {
    std::string_view path;
    std::string_view content;
};
constexpr std::array<File, 4> kFiles = {{
    {"/etc/passwd", "root:x:0:0:root:/root:/bin/sh\nnobody:x:65534:65534:nobody:/nonexistent:/bin/false\n"},
    {"/etc/group", "root:x:0:\nnogroup:x:65534:\n"},
    {"/etc/hosts", "127.0.0.1 localhost\n::1 localhost\n"},
    {"/var/log/messages", ""},
}};

Status make_directory(const fs::path& path, mode_t mode) {
    std::error_code ec;
    if (fs::create_directories(path, ec)) {
        // Set explicitly: the creation mode is cut by the caller's umask.
        if (::chmod(path.c_str(), mode) != 0)
            return Status::failure(system_error("chmod " + path.string(), errno));
    } else if (ec || !fs::is_directory(path, ec)) {
        return Status::failure("cannot create directory " + path.string() + (ec ? ": " + ec.message() : ""));
    }
    return {};
}

bool exists_no_follow(const fs::path& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0;
}

Status make_file(const fs::path& path, std::string_view content, mode_t mode) {
    if (exists_no_follow(path)) return {};
    ubus::UniqueFd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode));
    if (!fd) return Status::failure(system_error("create " + path.string(), errno));
    if (::write(fd.get(), content.data(), content.size()) != static_cast<ssize_t>(content.size())) {
        return Status::failure(system_error("write " + path.string(), errno));
    }
    ::fchmod(fd.get(), mode);
    return {};
}

Status make_link(const fs::path& path, const fs::path& target) {
    if (exists_no_follow(path)) return {};
    std::error_code ec;
    fs::create_symlink(target, path, ec);
    if (ec) return Status::failure("cannot create link " + path.string() + ": " + ec.message());
    return {};
}

// The root's own copy of busybox, and a link for each of its applets in /bin.
Status install_busybox(const fs::path& busybox, const fs::path& root) {
    std::error_code ec;
    if (!fs::is_regular_file(busybox, ec)) {
        return Status::failure("no busybox at " + busybox.string() + " (install the busybox-static package)");
    }
    fs::path copy = host_path(root, "/bin/busybox");
    if (!fs::exists(copy, ec) || fs::file_size(copy, ec) != fs::file_size(busybox, ec)) {
        fs::copy_file(busybox, copy, fs::copy_options::overwrite_existing, ec);
        if (ec) return Status::failure("cannot copy " + busybox.string() + ": " + ec.message());
        ::chmod(copy.c_str(), 0755);
    }
    SpawnSpec list;
    list.argv = {busybox.string(), "--list"};
    list.env = {"PATH=/bin"};
    CommandResult applets = run_command(list, std::chrono::seconds(30));
    if (!applets.ok())
        return Status::failure("cannot list the applets of " + busybox.string() + ": " + applets.err);
    std::string_view names = applets.out;
    while (!names.empty()) {
        auto end = names.find('\n');
        std::string_view name = names.substr(0, end);
        names.remove_prefix(end == std::string_view::npos ? names.size() : end + 1);
        if (name.empty() || name == "busybox" || name.find('/') != std::string_view::npos) continue;
        if (Status s = make_link(host_path(root, "/bin") / name, "busybox"); !s) return s;
    }
    return {};
}

bool valid_inside_path(std::string_view path) {
    if (path.size() < 2 || path.front() != '/' || path.back() == '/') return false;
    for (const auto& part : fs::path(path)) {
        if (part == "..") return false;
    }
    return true;
}

}  // namespace

Status build_root(const RootSpec& spec) {
    if (spec.root.empty() || !spec.root.is_absolute()) {
        return Status::failure("the root must be an absolute path: " + spec.root.string());
    }
    if (Status s = make_directory(spec.root, 0755); !s) return s;
    for (const Dir& dir : kDirectories) {
        if (Status s = make_directory(host_path(spec.root, dir.path), dir.mode); !s) return s;
    }
    for (const Link& link : kLinks) {
        if (Status s = make_link(host_path(spec.root, link.path), link.target); !s) return s;
    }
    for (const File& file : kFiles) {
        if (Status s = make_file(host_path(spec.root, file.path), file.content, 0644); !s) return s;
    }
    if (Status s = install_busybox(spec.busybox, spec.root); !s) return s;
    if (Status s = prepare_host_view(spec.root); !s) return s;
    for (const ToolBinding& tool : spec.tools) {
        if (!valid_inside_path(tool.inside))
            return Status::failure("not a path inside the root: " + tool.inside);
        fs::path place = host_path(spec.root, tool.inside);
        if (Status s = make_directory(place.parent_path(), 0755); !s) return s;
        if (Status s = make_file(place, "", 0755); !s) return s;
    }
    return {};
}

bool parse_tool_binding(std::string_view text, ToolBinding& out) {
    auto split = text.rfind(":/");
    if (split == std::string_view::npos || split == 0) return false;
    out.host = std::string(text.substr(0, split));
    out.inside = std::string(text.substr(split + 1));
    return valid_inside_path(out.inside);
}

}  // namespace sandbox

// What pkgd reads of the system it runs on: the kernel's memory figures, the size of the root file
// system, the live processes and the clock. Everything that looks at these goes through one
// SystemEnv, passed in; start-up binds the real one, tests a fake that says whatever the case
// needs (little memory, a full disk, a package's file that a process runs, a fixed time).
#pragma once

#include <sys/types.h>

#include <compare>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

namespace pkgd {

// A file as the kernel knows it, whatever path leads to it.
struct file_id {
    dev_t dev = 0;
    ino_t ino = 0;
    friend auto operator<=>(const file_id&, const file_id&) = default;
};

// The figures of a file system, as statfs gives them.
struct fs_figures {
    std::uint64_t block_size = 0;   // the fragment size byte amounts are counted in
    std::uint64_t blocks = 0;       // total
    std::uint64_t free_blocks = 0;  // free, those reserved for the superuser included
};

class SystemEnv {
public:
    virtual ~SystemEnv() = default;

    // The text of /proc/meminfo; nothing when it cannot be read.
    virtual std::optional<std::string> meminfo() = 0;
    // The file system holding "/"; nothing when it cannot be queried.
    virtual std::optional<fs_figures> root_fs() = 0;
    // The identity of the file `path` leads to, following symbolic links; nothing when it cannot
    // be examined (gone, no permission).
    virtual std::optional<file_id> file_identity(const std::string& path) = 0;
    // The executables of the live processes, in no particular order. Processes whose executable
    // cannot be examined (gone meanwhile, kernel threads) are left out.
    virtual std::vector<file_id> running_executables() = 0;
    // The current calendar time.
    virtual std::time_t now() = 0;
};

// The machine pkgd runs on: /proc, statfs("/"), stat(2), time(2).
SystemEnv& real_system_env();

}  // namespace pkgd

// package_ispkgactive for a package of 200 files while 300 extra processes are alive, next to the
// way of reading /proc once per file that it replaces.
#include <dirent.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "bench_clock.hpp"
#include "pkgd/run_state.hpp"

namespace {

constexpr int kProcesses = 300;
constexpr int kFiles = 200;

// Sleeping children, killed and reaped when the group goes.
class SleepingChildren {
public:
    explicit SleepingChildren(int count) {
        for (int i = 0; i < count; ++i) {
            const pid_t pid = ::fork();
            if (pid == 0) {
                ::prctl(PR_SET_PDEATHSIG, SIGKILL);
                for (;;) ::pause();
            }
            if (pid > 0) pids_.push_back(pid);
        }
    }
    ~SleepingChildren() {
        for (pid_t pid : pids_) ::kill(pid, SIGKILL);
        for (pid_t pid : pids_) ::waitpid(pid, nullptr, 0);
    }
    SleepingChildren(const SleepingChildren&) = delete;
    SleepingChildren& operator=(const SleepingChildren&) = delete;
    std::size_t size() const { return pids_.size(); }

private:
    std::vector<pid_t> pids_;
};

class ScratchDir {
public:
    ScratchDir() {
        std::string tmpl = (std::filesystem::temp_directory_path() / "pkgd-bench-XXXXXX").string();
        if (::mkdtemp(tmpl.data()) != nullptr) path_ = tmpl;
    }
    ~ScratchDir() {
        std::error_code ec;
        if (!path_.empty()) std::filesystem::remove_all(path_, ec);
    }
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;
    const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
};

// The former way: for every path, read the whole of /proc again.
int per_file_scan(const pkgd::pkg_info& pkg) {
    std::string files = *pkg.du.files;
    std::size_t start = 0;
    while (start < files.size()) {
        std::size_t end = files.find(';', start);
        if (end == std::string::npos) end = files.size();
        const std::string path = files.substr(start, end - start);
        start = end + 1;
        struct stat target {};
        if (path.empty() || ::stat(path.c_str(), &target) != 0) continue;
        DIR* dir = ::opendir("/proc");
        if (!dir) continue;
        while (const dirent* entry = ::readdir(dir)) {
            if (entry->d_name[0] < '0' || entry->d_name[0] > '9') continue;
            const std::string exe = "/proc/" + std::to_string(std::atoi(entry->d_name)) + "/exe";
            struct stat st {};
            if (::stat(exe.c_str(), &st) == 0 && st.st_dev == target.st_dev && st.st_ino == target.st_ino) {
                ::closedir(dir);
                return 0;
            }
        }
        ::closedir(dir);
    }
    return -1;
}

std::size_t live_processes() {
    std::size_t n = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        const char c = entry.path().filename().string()[0];
        if (c >= '0' && c <= '9') ++n;
    }
    return n;
}

}  // namespace

int main() {
    const ScratchDir dir;
    if (dir.path().empty()) return 1;
    pkgd::pkg_info idle;
    std::string files;
    for (int i = 0; i < kFiles; ++i) {
        const auto path = dir.path() / ("file-" + std::to_string(i));
        std::ofstream(path) << "#!/bin/sh\n";
        files += path.string() + ";";
    }
    idle.du.files = files;
    // The same package whose last file is this program, which every child runs too.
    pkgd::pkg_info running = idle;
    std::filesystem::create_symlink(std::filesystem::read_symlink("/proc/self/exe"), dir.path() / "exe");
    *running.du.files += (dir.path() / "exe").string() + ";";

    const SleepingChildren children(kProcesses);
    std::printf("package of %d files, %zu processes alive (%zu started here)\n", kFiles, live_processes(),
                children.size());
    bench::report("package_ispkgactive, not running (every file checked)", 200,
                  [&] { (void)pkgd::package_ispkgactive(idle); });
    bench::report("package_ispkgactive, running (last file matches)", 200,
                  [&] { (void)pkgd::package_ispkgactive(running); });
    bench::report("former per-file scan, not running", 5, [&] { (void)per_file_scan(idle); });
    if (pkgd::package_ispkgactive(idle) != -1 || pkgd::package_ispkgactive(running) != 0 ||
        per_file_scan(running) != 0) {
        std::puts("unexpected answer");
        return 1;
    }
    return 0;
}

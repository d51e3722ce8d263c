// Which files are running: the identities of files and of the executables of live processes.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <charconv>
#include <memory>

#include "pkgd/run_state.hpp"

namespace pkgd {
namespace {

struct DirClose {
    void operator()(DIR* dir) const { ::closedir(dir); }
};

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

}  // namespace

std::optional<file_id> file_identity(const char* path) {
    struct stat st {};
    if (::stat(path, &st) != 0) return std::nullopt;
    return file_id{st.st_dev, st.st_ino};
}

std::vector<file_id> file_list_identities(std::string_view files, SystemEnv& sys) {
    std::vector<file_id> ids;
    std::string path;
    while (!files.empty()) {
        const std::size_t end = std::min(files.find(';'), files.size());
        path.assign(files.substr(0, end));
        files.remove_prefix(std::min(end + 1, files.size()));
        if (path.empty()) continue;
        if (auto id = sys.file_identity(path)) ids.push_back(*id);
    }
    return ids;
}

std::vector<file_id> file_list_identities(std::string_view files) {
    return file_list_identities(files, real_system_env());
}

std::vector<file_id> running_executables(const std::string& proc_dir) {
    std::vector<file_id> exes;
    const std::unique_ptr<DIR, DirClose> dir(::opendir(proc_dir.c_str()));
    if (!dir) return exes;
    const int dir_fd = ::dirfd(dir.get());
    char link[32];
    while (const dirent* entry = ::readdir(dir.get())) {
        const char* name = entry->d_name;
        if (!is_digit(name[0])) continue;
        // The process number is the leading digits of the name, written back as a plain number.
        int pid = 0;
        const char* digits_end = name;
        while (is_digit(*digits_end)) ++digits_end;
        if (std::from_chars(name, digits_end, pid).ec != std::errc{}) continue;
        char* p = std::to_chars(link, link + sizeof link - 5, pid).ptr;
        std::copy_n("/exe", 5, p);
        struct stat st {};
        if (::fstatat(dir_fd, link, &st, 0) == 0) exes.push_back({st.st_dev, st.st_ino});
    }
    return exes;
}

bool any_file_running(std::vector<file_id> files, std::span<const file_id> executables) {
    std::sort(files.begin(), files.end());
    return std::any_of(executables.begin(), executables.end(), [&files](const file_id& exe) {
        return std::binary_search(files.begin(), files.end(), exe);
    });
}

}  // namespace pkgd

#include "sandbox/ready_file.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <sstream>
#include <string>

#include "sandbox/root_paths.hpp"

namespace sandbox {

std::optional<unsigned long long> process_start_time(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string stat;
    if (!std::getline(in, stat)) return std::nullopt;
    // The command name (field 2) may hold spaces and parentheses: count fields after its end.
    auto close = stat.rfind(')');
    if (close == std::string::npos) return std::nullopt;
    std::istringstream fields(stat.substr(close + 1));
    std::string field;
    for (int i = 3; i < 22 && fields >> field; ++i) {
    }
    unsigned long long start = 0;
    if (!(fields >> start)) return std::nullopt;
    return start;
}

Status write_ready_file(const std::filesystem::path& root, pid_t init_pid) {
    auto start = process_start_time(init_pid);
    if (!start) return Status::failure("the sandbox's first process is gone");
    std::filesystem::path path = host_path(root, kReadyFile);
    std::filesystem::path temporary = path;
    temporary += ".new";
    {
        std::ofstream out(temporary, std::ios::trunc);
        out << init_pid << ' ' << *start << '\n';
        if (!out.flush()) return Status::failure(system_error("write " + temporary.string(), errno));
    }
    if (::rename(temporary.c_str(), path.c_str()) != 0) {
        return Status::failure(system_error("rename " + temporary.string(), errno));
    }
    return {};
}

void remove_ready_file(const std::filesystem::path& root) {
    ::unlink(host_path(root, kReadyFile).c_str());
}

std::optional<ReadyInfo> running_sandbox(const std::filesystem::path& root) {
    std::ifstream in(host_path(root, kReadyFile));
    ReadyInfo info;
    if (!(in >> info.init_pid >> info.start_time) || info.init_pid <= 0) return std::nullopt;
    if (process_start_time(info.init_pid) != info.start_time) return std::nullopt;
    return info;
}

}  // namespace sandbox

// pkgd's process in a sandbox gateway as the host sees it, and its memory, for the programs that
// report what pkgd costs.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>

#include "sandbox/gateway.hpp"

namespace bench {

// The daemon, not one of its workers (which run the same program, as its children).
inline std::optional<pid_t> pkgd_host_pid(const sandbox::Gateway& gw) {
    const auto runs_pkgd = [](pid_t pid) {
        std::error_code ec;
        return std::filesystem::read_symlink("/proc/" + std::to_string(pid) + "/exe", ec).filename() == "pkgd";
    };
    for (pid_t pid : sandbox::processes_in_namespace("pid", gw.pid_namespace())) {
        if (!runs_pkgd(pid)) continue;
        std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
        std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
        std::istringstream after_name(text.substr(text.rfind(')') + 1));
        std::string state;
        pid_t parent = 0;
        after_name >> state >> parent;
        if (!runs_pkgd(parent)) return pid;
    }
    return std::nullopt;
}

struct Memory {
    long rss_kb = 0;
    long uss_kb = 0;  // Private_Clean + Private_Dirty
};

inline Memory memory_of(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/smaps_rollup");
    Memory m;
    for (std::string line; std::getline(in, line);) {
        long* into = line.starts_with("Rss:") ? &m.rss_kb
                     : line.starts_with("Private_Clean:") || line.starts_with("Private_Dirty:") ? &m.uss_kb
                                                                                                  : nullptr;
        if (into == nullptr) continue;
        std::istringstream fields(line.substr(line.find(':') + 1));
        long kb = 0;
        fields >> kb;
        *into += kb;
    }
    return m;
}

}  // namespace bench

// The real system: /proc, statfs and the clock of the machine pkgd runs on.
#include "pkgd/system_env.hpp"

#include <sys/statfs.h>

#include <fstream>
#include <sstream>

#include "pkgd/run_state.hpp"

namespace pkgd {
namespace {

class RealSystemEnv final : public SystemEnv {
public:
    std::optional<std::string> meminfo() override {
        std::ifstream in("/proc/meminfo");
        if (!in) return std::nullopt;
        std::ostringstream text;
        text << in.rdbuf();
        return std::move(text).str();
    }

    std::optional<fs_figures> root_fs() override {
        struct statfs fs {};
        if (::statfs("/", &fs) != 0) return std::nullopt;
        return fs_figures{static_cast<std::uint64_t>(fs.f_bsize), fs.f_blocks, fs.f_bfree};
    }

    std::optional<file_id> file_identity(const std::string& path) override {
        return pkgd::file_identity(path.c_str());
    }

    std::vector<file_id> running_executables() override { return pkgd::running_executables(); }

    std::time_t now() override { return std::time(nullptr); }
};

}  // namespace

SystemEnv& real_system_env() {
    static RealSystemEnv env;
    return env;
}

}  // namespace pkgd

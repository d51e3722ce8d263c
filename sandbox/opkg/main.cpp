// The sandbox gateway's package tool, installed in every sandbox root as /bin/opkg.
#include <curl/curl.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <map>
#include <optional>
#include <system_error>

#include "context.hpp"
#include "files.hpp"

namespace opkg {

void report(std::string_view message) {
    std::fprintf(stderr, "opkg: %.*s\n", static_cast<int>(message.size()), message.data());
}

}  // namespace opkg

namespace {

// Installs and removals change the package database: one at a time, whoever started them.
struct DatabaseLock {
    explicit DatabaseLock(const std::string& path)
        : fd(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644)) {
        if (fd) ::flock(fd.get(), LOCK_EX);  // released when the descriptor closes
    }
    opkg::UniqueFd fd;
};

struct CurlGlobal {
    CurlGlobal() { curl_global_init(CURL_GLOBAL_DEFAULT); }
    ~CurlGlobal() { curl_global_cleanup(); }
    CurlGlobal(const CurlGlobal&) = delete;
    CurlGlobal& operator=(const CurlGlobal&) = delete;
};

}  // namespace

int main(int argc, char** argv) {
    using namespace opkg;
    ::umask(022);
    std::vector<std::string_view> args(argv + 1, argv + argc);
    const InvocationResult parsed = parse_command_line(args);
    if (!parsed.ok()) {
        report(parsed.error);
        std::fputs(usage_text().c_str(), stderr);
        return exit_usage;
    }
    Context context{parsed.invocation, {}};

    std::string error;
    const std::optional<std::string> text = read_file(context.invocation.config_path, &error);
    if (text) {
        ConfigResult config = parse_config(*text);
        if (!config.ok()) {
            report(context.invocation.config_path + ": " + config.error);
            return exit_usage;
        }
        context.config = std::move(config.config);
    } else if (context.invocation.config_given || errno != ENOENT) {
        report("cannot read the configuration: " + error);
        return exit_usage;
    }

    const std::map<std::string_view, int (*)(const Context&)> commands = {
        {"update", run_update},
        {"download", run_download},
        {"install", run_install},
        {"remove", run_remove},
        {"list-installed", run_list_installed},
        {"info", run_info},
        {"sha256sum", run_sha256sum},
    };
    const auto command = commands.find(context.invocation.command);
    if (command == commands.end()) {
        report("unknown command " + context.invocation.command);
        std::fputs(usage_text().c_str(), stderr);
        return exit_usage;
    }
    std::optional<DatabaseLock> lock;
    if (command->first == "install" || command->first == "remove") {
        std::error_code ignored;
        std::filesystem::create_directories(context.path(info_dir_inside), ignored);
        lock.emplace(context.path("/usr/lib/opkg/lock"));
    }
    const CurlGlobal curl;
    return command->second(context);
}

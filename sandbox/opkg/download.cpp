// `opkg download URL`: the file appears in tmp_dir under its name only once it is complete.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <system_error>
#include <vector>

#include "context.hpp"
#include "files.hpp"

namespace opkg {
namespace {

// The URL's last path component, without query or fragment; empty when there is no usable one.
std::string file_name_of(std::string_view url) {
    url = url.substr(0, url.find_first_of("?#"));
    const std::size_t scheme = url.find("://");
    if (scheme == std::string_view::npos) return {};
    const std::size_t slash = url.rfind('/');
    if (slash == std::string_view::npos || slash < scheme + 3) return {};
    const std::string_view name = url.substr(slash + 1);
    if (name.empty() || name == "." || name == "..") return {};
    return std::string(name);
}

// The partial file's name, for a signal that ends the download: whoever stops us (a caller's own
// time limit) must not find half a package under tmp_dir afterwards.
char partial_path[4096];

void drop_partial(int sig) {
    ::unlink(partial_path);
    ::signal(sig, SIG_DFL);
    ::raise(sig);
}

void drop_partial_on_signals(const std::vector<char>& path) {
    if (path.size() > sizeof partial_path) return;
    std::copy(path.begin(), path.end(), partial_path);
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) ::signal(sig, drop_partial);
}

}  // namespace

int run_download(const Context& context) {
    if (context.invocation.operands.size() != 1) {
        report("download takes one URL");
        return exit_usage;
    }
    const std::string& url = context.invocation.operands.front();
    const std::string name = file_name_of(url);
    if (name.empty()) {
        report(printable_url(url) + ": the URL names no file");
        return exit_usage;
    }
    const std::string dir = context.path(context.config.tmp_dir);
    const std::string target = dir + "/" + name;
    std::error_code ignored;
    std::filesystem::create_directories(dir, ignored);
    std::string pattern = dir + "/." + name + ".XXXXXX";
    std::vector<char> partial(pattern.begin(), pattern.end());
    partial.push_back('\0');
    UniqueFd fd(::mkostemp(partial.data(), O_CLOEXEC));
    if (!fd) {
        report("cannot create a file in " + dir + ": " + errno_text());
        return exit_failed;
    }
    drop_partial_on_signals(partial);
    std::printf("Downloading %s.\n", printable_url(url).c_str());
    std::string error = fetch_to_fd(url, fd.get(), context.fetch_options());
    // No fsync: the download lives in the temporary directory, which a reboot empties anyway, and
    // it is read back at once by whoever asked for it; flushing 10 MiB to disk is pure delay.
    if (error.empty() && ::fchmod(fd.get(), 0644) != 0)
        error = target + ": " + errno_text();
    fd = UniqueFd();
    if (error.empty() && ::rename(partial.data(), target.c_str()) != 0) error = target + ": " + errno_text();
    if (!error.empty()) ::unlink(partial.data());
    partial_path[0] = '\0';  // nothing of ours to drop any more
    if (!error.empty()) {
        report("download failed: " + error);
        return exit_failed;
    }
    std::printf("Downloaded %s to %s.\n", name.c_str(), target.c_str());
    return exit_ok;
}

}  // namespace opkg

// `opkg download URL`: the file appears in tmp_dir under its name only once it is complete.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
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
    std::string pattern = dir + "/." + name + ".XXXXXX";
    std::vector<char> partial(pattern.begin(), pattern.end());
    partial.push_back('\0');
    UniqueFd fd(::mkostemp(partial.data(), O_CLOEXEC));
    if (!fd) {
        report("cannot create a file in " + dir + ": " + errno_text());
        return exit_failed;
    }
    std::printf("Downloading %s.\n", printable_url(url).c_str());
    std::string error = fetch_to_fd(url, fd.get(), context.fetch_options());
    if (error.empty() && (::fchmod(fd.get(), 0644) != 0 || ::fsync(fd.get()) != 0))
        error = target + ": " + errno_text();
    fd = UniqueFd();
    if (error.empty() && ::rename(partial.data(), target.c_str()) != 0) error = target + ": " + errno_text();
    if (!error.empty()) {
        ::unlink(partial.data());
        report("download failed: " + error);
        return exit_failed;
    }
    std::printf("Downloaded %s to %s.\n", name.c_str(), target.c_str());
    return exit_ok;
}

}  // namespace opkg

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include "pkgd/engine_parts.hpp"
#include "ubus/fd.hpp"

namespace pkgd {
namespace {

bool write_all(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t n = ::write(fd, text.data(), text.size());
        if (n < 0) return false;
        text.remove_prefix(static_cast<std::size_t>(n));
    }
    return true;
}

}  // namespace

bool package_opkg_str_starts_with(std::string_view text, std::string_view prefix) {
    return text.substr(0, prefix.size()) == prefix;
}

std::string opkg_conf_text(const engine_paths& paths, const char* feed_url, const char* user,
                           const char* password, bool check_signature, std::string_view lists_dir) {
    std::string text;
    if (feed_url) text.append("src/gz ipklist ").append(feed_url).append("\n");
    text.append("arch arm 100\n");
    text.append("option tmp_dir ").append(paths.tmp_dir).append("\n");
    if (!lists_dir.empty()) text.append("option lists_dir ").append(lists_dir).append("\n");
    if (user && *user) text.append("option proxy_user ").append(user).append("\n");
    if (password && *password) text.append("option proxy_passwd ").append(password).append("\n");
    if (check_signature) {
        text.append("option signature_ca_path ").append(paths.ca_dir).append("\n");
        text.append("option signature_ca_file ").append(paths.trust_anchor).append("\n");
        text.append("option check_signature\n");
    }
    return text;
}

int package_opkg_create_conf(const engine_paths& paths, const std::string& path, const char* feed_url,
                             const char* user, const char* password, std::string_view lists_dir) {
    const bool check_signature = ::access(paths.trust_anchor.c_str(), F_OK) == 0;
    const std::string text = opkg_conf_text(paths, feed_url, user, password, check_signature, lists_dir);
    // The file holds the proxy password: it is born 0600 under a temporary name and renamed over
    // the old one, so no reader ever sees it with a wider mode or half written, and a link planted
    // at the temporary name is not followed.
    const std::string temp = path + ".tmp." + std::to_string(::getpid());
    ::unlink(temp.c_str());
    ubus::UniqueFd fd(::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!fd) return -1;
    const bool written = ::fchmod(fd.get(), 0600) == 0 && write_all(fd.get(), text);
    fd.reset();
    if (!written || ::rename(temp.c_str(), path.c_str()) != 0) {
        ::unlink(temp.c_str());
        return -1;
    }
    return 0;
}

std::optional<std::pair<std::string, std::string>> split_package_url(std::string_view url) {
    const std::size_t slash = url.rfind('/');
    if (slash == std::string_view::npos) return std::nullopt;
    return std::pair{std::string(url.substr(0, slash)), std::string(url.substr(slash + 1))};
}

std::string url_without_userinfo(std::string_view url) {
    const std::size_t scheme = url.find("://");
    const std::size_t host = scheme == std::string_view::npos ? 0 : scheme + 3;
    const std::size_t authority_end = std::min(url.find_first_of("/?#", host), url.size());
    const std::size_t at = url.substr(0, authority_end).rfind('@');
    if (at == std::string_view::npos || at < host) return std::string(url);
    return std::string(url.substr(0, host)).append(url.substr(at + 1));
}

int package_opkg_update(engine_context& ctx, const pkg_info& pkg) {
    const std::string_view url = pkg.url;
    if (!package_opkg_str_starts_with(url, "http://") && !package_opkg_str_starts_with(url, "ftp://") &&
        !package_opkg_str_starts_with(url, "https://"))
        return -1;
    const auto feed = split_package_url(url);
    if (!feed) return -1;
    if (package_opkg_create_conf(ctx.paths, ctx.paths.conf, feed->first.c_str(), pkg.username.c_str(),
                                 pkg.password.c_str()) != 0)
        return -1;
    return ctx.commands.run({"opkg", "update", "-f", ctx.paths.conf}) == 0 ? 0 : -1;
}

}  // namespace pkgd

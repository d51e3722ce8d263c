#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include "pkgd/engine_parts.hpp"
#include "pkgd/file_io.hpp"
#include "ubus/fd.hpp"

namespace pkgd {
namespace {

// Where the user-info of `url` begins and where its "@" stands; nothing without user-info.
std::optional<std::pair<std::size_t, std::size_t>> userinfo_span(std::string_view url) {
    const std::size_t scheme = url.find("://");
    const std::size_t host = scheme == std::string_view::npos ? 0 : scheme + 3;
    const std::size_t authority_end = std::min(url.find_first_of("/?#", host), url.size());
    const std::size_t at = url.substr(0, authority_end).rfind('@');
    if (at == std::string_view::npos || at < host) return std::nullopt;
    return std::pair{host, at};
}

int hex_digit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// "%XX" escapes decoded, as a URL's user-info carries them.
std::string percent_decode(std::string_view text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size() && hex_digit(text[i + 1]) >= 0 &&
            hex_digit(text[i + 2]) >= 0) {
            out += static_cast<char>(hex_digit(text[i + 1]) * 16 + hex_digit(text[i + 2]));
            i += 2;
        } else {
            out += text[i];
        }
    }
    return out;
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
    // at the temporary name is not followed. It is not flushed to storage: /tmp does not outlive a
    // power cut, and every operation writes the file afresh.
    const std::string temp = path + ".tmp." + std::to_string(::getpid());
    ::unlink(temp.c_str());
    ubus::UniqueFd fd(::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!fd) return -1;
    const bool written = ::fchmod(fd.get(), 0600) == 0 && write_fully(posix_file_io(), fd.get(), text);
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
    const std::optional<std::pair<std::size_t, std::size_t>> info = userinfo_span(url);
    if (!info) return std::string(url);
    return std::string(url.substr(0, info->first)).append(url.substr(info->second + 1));
}

std::pair<std::string, std::string> feed_credentials(const pkg_info& pkg) {
    if (!pkg.username.empty()) return {pkg.username.str(), pkg.password.str()};
    const std::string_view url = pkg.url;
    const std::optional<std::pair<std::size_t, std::size_t>> info = userinfo_span(url);
    if (!info) return {};
    const std::string_view userinfo = url.substr(info->first, info->second - info->first);
    const std::size_t colon = userinfo.find(':');
    if (colon == std::string_view::npos) return {percent_decode(userinfo), {}};
    return {percent_decode(userinfo.substr(0, colon)), percent_decode(userinfo.substr(colon + 1))};
}

int package_opkg_update(engine_context& ctx, const pkg_info& pkg) {
    const std::string_view url = pkg.url;
    if (!package_opkg_str_starts_with(url, "http://") && !package_opkg_str_starts_with(url, "ftp://") &&
        !package_opkg_str_starts_with(url, "https://"))
        return -1;
    const auto feed = split_package_url(url);
    if (!feed) return -1;
    const auto [user, password] = feed_credentials(pkg);
    if (package_opkg_create_conf(ctx.paths, ctx.paths.conf, feed->first.c_str(), user.c_str(),
                                 password.c_str()) != 0)
        return -1;
    return ctx.commands.run({"opkg", "update", "-f", ctx.paths.conf}) == 0 ? 0 : -1;
}

}  // namespace pkgd

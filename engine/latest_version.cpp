// Whether the feed offers a newer version of an installed package. The query refreshes into its
// own configuration and lists directory, so it can run beside an operation without replacing the
// operation's configuration or feed index.
#include <sys/stat.h>

#include "pkgd/engine_parts.hpp"
#include "pkgd/text.hpp"

namespace pkgd {

std::string latest_feed_version(std::string_view index_text, std::string_view name) {
    std::string latest;
    const auto value_of = [](std::string_view line, std::string_view key, std::size_t max) {
        line.remove_prefix(key.size());
        line.remove_prefix(skip_white_space(line));
        return std::string(line.substr(0, max));
    };
    std::size_t pos = 0;
    while (pos < index_text.size()) {
        std::string current_name;
        std::string current_version;
        // Only an empty line ends a record here.
        while (pos < index_text.size()) {
            std::size_t end = index_text.find('\n', pos);
            end = end == std::string_view::npos ? index_text.size() : end;
            const std::string_view line = index_text.substr(pos, end - pos);
            const bool record_end = end < index_text.size() && end == pos;
            pos = end + 1;
            if (record_end) break;
            if (package_opkg_str_starts_with(line, s_opkg_options[0].key))
                current_name = value_of(line, s_opkg_options[0].key, 1023);
            else if (package_opkg_str_starts_with(line, s_opkg_options[1].key))
                current_version = value_of(line, s_opkg_options[1].key, 127);
        }
        if (current_name == name && (latest.empty() || opkg_compare_version(latest, current_version) == 1))
            latest = current_version;
    }
    return latest;
}

int package_opkg_islatestversion(engine_context& ctx, const pkg_info& pkg) {
    std::string_view url = pkg.url;
    const auto split = split_package_url(url.substr(0, 1023));
    if (!split) return 0;
    const auto [user, password] = feed_credentials(pkg);
    if (package_opkg_create_conf(ctx.paths, ctx.paths.query_conf, split->first.c_str(), user.c_str(),
                                 password.c_str(), ctx.paths.query_lists_dir) != 0)
        return 0;
    ::mkdir(ctx.paths.query_lists_dir.c_str(), 0700);
    ctx.commands.run({"opkg", "update", "-f", ctx.paths.query_conf});  // a failed refresh keeps the old index
    const std::optional<std::string> index = read_text_file(ctx.paths.query_lists_dir + "/ipklist");
    const std::string latest = index ? latest_feed_version(*index, pkg.du.name.value_or("")) : std::string();
    return opkg_compare_version(pkg.du.version, latest) == 1 ? 1 : 0;
}

}  // namespace pkgd

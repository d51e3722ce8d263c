#include "operation_log.hpp"

#include <sys/stat.h>

namespace pkgd {

void log_operation(engine_context& ctx, std::string_view format, const pkg_info& pkg) {
    const std::string url = url_without_userinfo(pkg.url);
    const bool with_url = format.find("%s from %s in %s") != std::string_view::npos;
    const std::string_view args[3] = {pkg.du.uuid.view(),
                                      with_url ? std::string_view(url) : ctx.identity.name.view(),
                                      ctx.identity.name.view()};
    std::string line;
    std::size_t next = 0;
    for (std::size_t i = 0; i < format.size(); ++i) {
        if (format[i] == '%' && i + 1 < format.size() && format[i + 1] == 's' && next < 3) {
            line += args[next++];
            ++i;
        } else {
            line += format[i];
        }
    }
    ctx.log.log(line);
}

std::string ee_event_value(const pkg_info& pkg) {
    std::string value = "Services.Management.LCM.ExecutionEnvironments.";
    if (pkg.ee && pkg.ee->name) value += *pkg.ee->name;
    if (value.size() > 1023) value.resize(1023);
    return value;
}

std::string local_package_path(const engine_context& ctx, std::string_view file_name) {
    std::string path = ctx.paths.tmp_dir + "/" + std::string(file_name);
    if (path.size() > 1023) path.resize(1023);
    return path;
}

bool path_exists(const std::string& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0;
}

}  // namespace pkgd

namespace pkgd {

int opkg_download(engine_context& ctx, const pkg_info& pkg) {
    const std::string url = url_without_userinfo(pkg.url);
    if (url.empty() || url.front() == '-') return -1;
    return ctx.commands.run({"opkg", "download", url, "-f", ctx.paths.conf, "-e", "3600"});
}

int opkg_remove(engine_context& ctx, std::string_view name) {
    if (name.empty() || name.front() == '-') return -1;
    return ctx.commands.run({"opkg", "remove", std::string(name)});
}

}  // namespace pkgd

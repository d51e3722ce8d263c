// What an installed package brought: its deployment unit's identity and install time, the
// execution environment of an environment package or the execution units (init scripts) of an
// ordinary one, and the list of installed files, read from opkg's list of the package.
#include "pkgd/engine_parts.hpp"
#include "pkgd/time_stamp.hpp"
#include "pkgd/uuid.hpp"

namespace pkgd {
namespace {

constexpr std::string_view kInitDir = "/etc/init.d/";

std::string list_path(const engine_context& ctx, std::string_view name) {
    return ctx.paths.info_dir + "/" + std::string(name) + ".list";
}

}  // namespace

int package_opkg_update_du_info(engine_context& ctx, pkg_info& pkg) {
    du_info& du = pkg.du;
    du.resolved = 1;
    du.enabled = 1;
    if (du.uuid.empty()) {
        // Same name and vendor, same UUID on every gateway.
        std::string name = du.name.value_or("");
        name += du.vendor ? "." + *du.vendor : std::string("..");
        if (name.size() > 1023) name.resize(1023);
        LCM_generate_uuid(du.uuid, name, UUID_NAMESPACE_DNS, 0);
    }
    du.time = format_time_stamp(ctx.sys.now());
    return 0;
}

int package_opkg_update_ee_info(engine_context& ctx, pkg_info& pkg) {
    ee_info ee;
    ee.index = ctx.peers.create_ee_instance();
    if (ee.index <= 0) {
        pkg.ee.reset();
        return -1;
    }
    ee.name = pkg.du.name;
    ee.version = pkg.du.version.view();
    ee.vendor = pkg.du.vendor;
    ee.type = pkg.du.section;
    pkg.ee = std::move(ee);
    return 0;
}

int package_opkg_update_eu_info(engine_context& ctx, pkg_info& pkg) {
    const std::string name = pkg.du.name.value_or("");
    // The board builds "/usr/lib/opkg/info/<name>.list" in 64 bytes: a longer name has no list.
    if (std::string_view("/usr/lib/opkg/info/").size() + name.size() + 5 > 63) return -1;
    const std::optional<std::string> list = read_text_file(list_path(ctx, name));
    if (!list) return -1;
    LineReader lines(*list);
    while (const auto piece = lines.next(1023)) {
        const std::string_view line = chomp(*piece);
        if (line.empty() || !package_opkg_str_starts_with(line, kInitDir)) continue;
        eu_info eu;
        eu.index = ctx.peers.create_eu_instance();
        if (eu.index <= 0) continue;  // the data model refused this one; the others still count
        eu.euid = "." + std::to_string(eu.index);
        eu.name = std::string(line.substr(kInitDir.size()));
        pkg.eu.push_back(eu);
        if (pkg.disable_autostart) ctx.peers.set_eu_autostart(eu.index, "0");
    }
    return 0;
}

void get_filelist(engine_context& ctx, pkg_info& pkg) {
    const std::optional<std::string> list = read_text_file(list_path(ctx, pkg.du.name.value_or("")));
    if (!list) return;
    LineReader lines(*list);
    while (const auto piece = lines.next(1023)) {
        const std::string_view line = chomp(*piece);
        if (!pkg.du.files) pkg.du.files.emplace();
        pkg.du.files->append(line).append(";");
        if (package_opkg_str_starts_with(line, kInitDir) && pkg.du.pkgtype == PKGTYPE_EE && pkg.ee)
            pkg.ee->file = line.substr(kInitDir.size());
    }
}

}  // namespace pkgd

// Undoing an install, shared by its failure path and by the recovery of an interrupted one.
#include "operation_log.hpp"

namespace pkgd {

// The same steps whatever stage was reached: what does not exist yet has nothing to delete.
void undo_install(engine_context& ctx, const operation_info& op, bool remove_package) {
    const pkg_info& pkg = *op.pkg;
    if (remove_package && pkg.du.name) opkg_remove(ctx, *pkg.du.name);
    if (pkg.ee) {
        ctx.peers.delete_instances(DM_INSTANCE_EE, op);
        ctx.records.delete_ee(pkg);
    }
    ctx.peers.delete_instances(DM_INSTANCE_DU, op);
    if (!pkg.eu.empty()) {
        ctx.peers.delete_instances(DM_INSTANCE_EU, op);
        ctx.records.delete_eu(pkg);
    }
    ctx.records.delete_du(pkg);
    ctx.records.delete_pkg(pkg);
}

std::string installed_check_path(const engine_context& ctx, const pkg_info& pkg) {
    // The board's path "/usr/lib/opkg/info/<name>.control" is cut at 255 bytes.
    constexpr std::size_t kBoardInfoDir = std::string_view("/usr/lib/opkg/info").size();
    std::string path = ctx.paths.info_dir + "/" + pkg.du.name.value_or("") + ".control";
    const std::size_t max =
        255 + (ctx.paths.info_dir.size() > kBoardInfoDir ? ctx.paths.info_dir.size() - kBoardInfoDir : 0);
    if (path.size() > max) path.resize(max);
    return path;
}

}  // namespace pkgd

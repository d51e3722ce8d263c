// One uninstall: opkg removes the package, then its data-model instances and record files go.
#include "operation_log.hpp"

namespace pkgd {

// What is left of a package opkg has removed: its instances and records.
void forget_removed_package(engine_context& ctx, const operation_info& op) {
    const pkg_info& pkg = *op.pkg;
    ctx.peers.delete_instances(DM_INSTANCE_DU, op);
    ctx.records.delete_du(pkg);
    if (pkg.ee) {
        ctx.peers.delete_instances(DM_INSTANCE_EE, op);
        ctx.records.delete_ee(pkg);
        ctx.peers.event(kLcmExecEnvDeleted, kLcmExecEnvIdKey, ee_event_value(pkg));
    } else if (!pkg.eu.empty()) {
        ctx.peers.delete_instances(DM_INSTANCE_EU, op);
        ctx.records.delete_eu(pkg);
    }
    ctx.records.delete_pkg(pkg);
}

int package_opkg_remove_operate(engine_context& ctx, operation_info& op) {
    if (!op.pkg) return -1;
    const pkg_info& pkg = *op.pkg;
    log_operation(ctx, "Start uninstalling package %s from %s.\n", pkg);
    package_event_about(ctx, kLcmDeleting, pkg);
    if (opkg_remove(ctx, pkg.du.name.value_or("")) != 0) {
        log_operation(ctx, "Uninstall package %s from %s failed.\n", pkg);
        ctx.peers.report(op, kFaultRequestDenied);
        package_event_about(ctx, kLcmDeleteFailed, pkg);
        return -1;
    }
    forget_removed_package(ctx, op);
    log_operation(ctx, "Uninstall package %s from %s complete.\n", pkg);
    package_event_about(ctx, kLcmDeleteComplete, pkg);
    ctx.peers.report(op, kFaultNone);
    return 0;
}

}  // namespace pkgd

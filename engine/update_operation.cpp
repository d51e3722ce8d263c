// One update: the feed's new version replaces the installed one. Nothing is undone on failure;
// the installed version's records stay and its units are started again.
#include "operation_log.hpp"
#include "pkgd/run_state.hpp"

namespace pkgd {
namespace {

struct update_failure {
    cwmp_fault fault;
    std::string_view reason;  // empty: no log line
};

constexpr update_failure kFeedRefresh{kFaultDownloadFailed, "unable to update package list"};
constexpr update_failure kNoFeedRecord{kFaultInvalidArguments,
                                       "unable to retrieve package information from Packages.gz"};
constexpr update_failure kNoMemory{kFaultNoResources, "insufficient memory"};
constexpr update_failure kNoDisk{kFaultNoResources, ""};
constexpr update_failure kDownload{kFaultDownloadFailed, "unable to download package"};
constexpr update_failure kCheck{kFaultFileCorrupted, "package check failed"};
constexpr update_failure kInstall{kFaultRequestDenied, "package install failed"};

void announce_failure(engine_context& ctx, const operation_info& op, const update_failure& f) {
    if (!f.reason.empty())
        log_operation(ctx, "Update package %s from %s in %s failed for " + std::string(f.reason) + ".\n",
                      *op.pkg);
    ctx.peers.report(op, f.fault);
    package_event_about(ctx, kLcmUpdateFailed, *op.pkg);
}

const update_failure* update_steps(engine_context& ctx, const operation_info& op,
                                   const std::string& file_name, const std::string& local_path) {
    pkg_info& pkg = *op.pkg;
    if (package_opkg_update(ctx, pkg) != 0) return &kFeedRefresh;
    if (package_opkg_retrieve_package_info(ctx, file_name, pkg.version, pkg.du) != 0) return &kNoFeedRecord;
    const auto size = static_cast<std::int32_t>(pkg.du.size);
    if (package_opkg_get_sys_mem(size, ctx.sys) != 0) return &kNoMemory;
    if (package_opkg_check_disk_size(size, ctx.sys) != 0) return &kNoDisk;
    if (opkg_download(ctx, pkg) != 0) return &kDownload;
    if (verify_package(ctx, local_path, op) != 0) return &kCheck;
    ctx.peers.stop(pkg);
    if (ctx.commands.run({"opkg", "install", local_path}) != 0) return &kInstall;
    refresh_update_records(ctx, op);
    return nullptr;
}

}  // namespace

// The new version's records replace the installed version's.
void refresh_update_records(engine_context& ctx, const operation_info& op) {
    pkg_info& pkg = *op.pkg;
    package_opkg_update_du_info(ctx, pkg);
    get_filelist(ctx, pkg);
    ctx.records.store_du(pkg);
    if (pkg.ee) {
        ctx.peers.delete_instances(DM_INSTANCE_EE, op);
        ctx.records.delete_ee(pkg);
    } else if (!pkg.eu.empty()) {
        ctx.peers.delete_instances(DM_INSTANCE_EU, op);
        ctx.records.delete_eu(pkg);
        pkg.eu.clear();
    }
    if (pkg.du.pkgtype == PKGTYPE_EE) {
        package_opkg_update_ee_info(ctx, pkg);
        ctx.records.store_ee(pkg);
    } else {
        package_opkg_update_eu_info(ctx, pkg);
        ctx.records.store_eu(pkg);
    }
    ctx.records.store_pkg(pkg);
}

int package_opkg_update_operate(engine_context& ctx, operation_info& op) {
    if (!op.pkg) return -1;
    pkg_info& pkg = *op.pkg;
    const auto split = split_package_url(pkg.url);
    package_event_about(ctx, kLcmUpdating, pkg);
    log_operation(ctx, "Start updating package %s from %s in %s.\n", pkg);
    if (!split) {
        log_operation(ctx, "Update package %s from %s in %s failed for irregular pathname.\n", pkg);
        ctx.peers.report(op, kFaultDownloadFailed);
        package_event_about(ctx, kLcmUpdateFailed, pkg);
        return -1;
    }
    const std::string local_path = local_package_path(ctx, split->second);
    if (const update_failure* failure = update_steps(ctx, op, split->second, local_path)) {
        announce_failure(ctx, op, *failure);
        ctx.peers.start(pkg);
        return -1;
    }
    ctx.peers.report(op, kFaultNone);
    package_event_about(ctx, kLcmUpdateComplete, pkg);
    if (package_ispkgactive(pkg, ctx.sys) == 0) package_event_about(ctx, kLcmPackageEnabled, pkg);
    log_operation(ctx, "Update package %s from %s in %s complete.\n", pkg);
    return 0;
}

}  // namespace pkgd

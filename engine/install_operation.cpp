// One install, from the feed record to the stored records. Every stage is announced by an LCM
// event; a failure reports its fault, announces it, and undoes what the operation created.
#include <unistd.h>

#include "operation_log.hpp"
#include "pkgd/run_state.hpp"

namespace pkgd {
namespace {

struct install_failure {
    cwmp_fault fault;
    lcm_event event;
    std::string_view reason;
    bool log_first = false;       // the log line comes before the report and the event
    bool remove_package = false;  // opkg had already installed it
};

constexpr install_failure kIrregularPath{kFaultDownloadFailed, kLcmDownloadFailed, "irregular pathname"};
constexpr install_failure kFeedRefresh{kFaultDownloadFailed, kLcmDownloadFailed,
                                       "unable to update package list"};
constexpr install_failure kNoFeedRecord{kFaultInvalidArguments, kLcmDownloadFailed,
                                        "unable to retrieve package information from Packages.gz"};
constexpr install_failure kNoStoredDu{kFaultDownloadFailed, kLcmDownloadFailed,
                                      "unable to get deployment unit information"};
constexpr install_failure kAlreadyInstalled{kFaultAlreadyInstalled, kLcmDownloadFailed,
                                            "the package is already installed"};
constexpr install_failure kNoDuInstance{kFaultNoResources, kLcmInstallFailed,
                                        "unable to register deploymentunit configuration node"};
constexpr install_failure kNoMemory{kFaultNoResources, kLcmDownloadFailed, "insufficient memory", true};
constexpr install_failure kNoDisk{kFaultNoResources, kLcmDownloadFailed, "insufficient disk", true};
constexpr install_failure kDownload{kFaultDownloadFailed, kLcmDownloadFailed, "unable to download package"};
constexpr install_failure kCheck{kFaultFileCorrupted, kLcmInstallFailed, "package check failed"};
constexpr install_failure kInstall{kFaultRequestDenied, kLcmInstallFailed, "package install failed"};
constexpr install_failure kEeDiscovery{kFaultRequestDenied, kLcmInstallFailed,
                                       "update Execution Environment information failed", true, true};
constexpr install_failure kEuDiscovery{kFaultRequestDenied, kLcmInstallFailed,
                                       "update Execution Unit information failed", true, true};

void announce_failure(engine_context& ctx, const operation_info& op, const install_failure& f) {
    const pkg_info& pkg = *op.pkg;
    const std::string line = "Install package %s from %s in %s failed for " + std::string(f.reason) + ".\n";
    if (f.log_first) log_operation(ctx, line, pkg);
    ctx.peers.report(op, f.fault);
    package_event_about(ctx, f.event, pkg);
    if (!f.log_first) log_operation(ctx, line, pkg);
}

// Steps from learning the package to storing its records; the failure that stopped them, if any.
const install_failure* install_steps(engine_context& ctx, operation_info& op, const std::string& file_name,
                                     const std::string& local_path) {
    pkg_info& pkg = *op.pkg;
    if (op.operate_duid == 0) {
        if (package_opkg_update(ctx, pkg) != 0) return &kFeedRefresh;
        if (package_opkg_retrieve_package_info(ctx, file_name, pkg.version, pkg.du) != 0)
            return &kNoFeedRecord;
    } else if (ctx.records.load_du(pkg, op.operate_duid) != 0) {
        return &kNoStoredDu;
    }
    if (path_exists(installed_check_path(ctx, pkg))) return &kAlreadyInstalled;
    pkg.du.index = op.operate_duid != 0 ? op.operate_duid : ctx.peers.create_du_instance();
    if (pkg.du.index == 0) return &kNoDuInstance;
    ctx.records.store_du(pkg);
    ctx.records.store_pkg(pkg);

    const auto size = static_cast<std::int32_t>(pkg.du.size);
    if (size == 0 || package_opkg_get_sys_mem(size, ctx.sys) != 0) return &kNoMemory;
    if (package_opkg_check_disk_size(size, ctx.sys) != 0) return &kNoDisk;
    if (opkg_download(ctx, pkg) != 0) return &kDownload;
    if (verify_package(ctx, local_path, op) != 0) return &kCheck;
    package_event_about(ctx, kLcmDownloadComplete, pkg);
    package_event_about(ctx, kLcmInstalling, pkg);
    if (ctx.commands.run({"opkg", "install", local_path}) != 0) return &kInstall;

    package_opkg_update_du_info(ctx, pkg);
    if (pkg.du.pkgtype == PKGTYPE_EE) {
        if (package_opkg_update_ee_info(ctx, pkg) != 0) return &kEeDiscovery;
    } else if (package_opkg_update_eu_info(ctx, pkg) != 0) {
        return &kEuDiscovery;
    }
    get_filelist(ctx, pkg);
    ctx.records.store_du(pkg);
    if (pkg.du.pkgtype == PKGTYPE_EE)
        ctx.records.store_ee(pkg);
    else
        ctx.records.store_eu(pkg);
    ctx.records.store_pkg(pkg);
    return nullptr;
}

}  // namespace

int package_opkg_install_operate(engine_context& ctx, operation_info& op) {
    if (!op.pkg) return -1;
    pkg_info& pkg = *op.pkg;
    package_event_about(ctx, kLcmDownloading, pkg);
    log_operation(ctx, "Start installing package %s from %s in %s.\n", pkg);
    const auto split = split_package_url(pkg.url);
    if (!split) {
        announce_failure(ctx, op, kIrregularPath);
        return -1;
    }
    const std::string local_path = local_package_path(ctx, split->second);

    int result = 0;
    if (const install_failure* failure = install_steps(ctx, op, split->second, local_path)) {
        announce_failure(ctx, op, *failure);
        undo_install(ctx, op, failure->remove_package);
        result = -1;
    } else {
        ctx.peers.report(op, kFaultNone);
        package_event_about(ctx, kLcmInstallComplete, pkg);
        if (pkg.du.pkgtype == PKGTYPE_EE)
            ctx.peers.event(kLcmExecEnvAdded, kLcmExecEnvIdKey, ee_event_value(pkg));
        if (package_ispkgactive(pkg, ctx.sys) == 0) package_event_about(ctx, kLcmPackageEnabled, pkg);
        log_operation(ctx, "Install package %s from %s in %s complete.\n", pkg);
    }
    if (op.operate_duid == 0) op.operate_duid = pkg.du.index;
    ::unlink(local_path.c_str());
    ::unlink(ctx.paths.conf.c_str());
    return result;
}

}  // namespace pkgd

// The recovery of an operation whose worker died before it reported (killed from outside, by the
// kernel, by a cancel, or with the whole daemon). It runs in a worker of its own, like the
// operation, and decides from what is on disk, never from what the dead worker meant to do.
#include <unistd.h>

#include <algorithm>

#include "operation_log.hpp"
#include "pkgd/engine.hpp"

namespace pkgd {
namespace {

// The journal keeps only what the request gave; the record files say what the worker stored.
void reload_records(engine_context& ctx, pkg_info& pkg) {
    const std::string pkg_file = ctx.records.pkg_path(pkg.id);
    if (!pkg_file.empty() && path_exists(pkg_file))
        ctx.records.reload_pkg(pkg);
    else if (pkg.du.index != 0)
        ctx.records.load_du(pkg, pkg.du.index);  // stored before the package record
}

bool opkg_has(const engine_context& ctx, const pkg_info& pkg) {
    return pkg.du.name && !pkg.du.name->empty() && path_exists(installed_check_path(ctx, pkg));
}

// The "Version:" of opkg's control file of the package; empty when there is none.
std::string installed_version(const engine_context& ctx, const pkg_info& pkg) {
    const auto control = read_text_file(installed_check_path(ctx, pkg));
    if (!control) return {};
    LineReader lines(*control);
    while (const auto piece = lines.next(1023)) {
        const std::string_view line = chomp(*piece);
        if (package_opkg_str_starts_with(line, "Version:")) {
            std::string_view version = line.substr(8);
            while (!version.empty() && version.front() == ' ') version.remove_prefix(1);
            return std::string(version);
        }
    }
    return {};
}

// Units whose record files a dead worker had already deleted, or not yet written, known from the
// journal only: their instances and catalog entries go with the rest.
void adopt_unrecorded_units(pkg_info& pkg, const operation_info& op) {
    for (const std::int32_t index : op.eu_instances)
        if (std::none_of(pkg.eu.begin(), pkg.eu.end(), [index](const eu_info& eu) { return eu.index == index; }))
            pkg.eu.emplace_back().index = index;
}

// An install is undone as its failure path undoes. opkg's package goes only when the worker had
// reached opkg: before that an installed package of the same name was somebody else's (the
// install refuses one it finds).
void recover_install(engine_context& ctx, operation_info& op, const cwmp_fault& fault) {
    pkg_info& pkg = *op.pkg;
    reload_records(ctx, pkg);
    adopt_unrecorded_units(pkg, op);
    ctx.peers.report(op, fault);
    package_event_about(ctx, kLcmInstallFailed, pkg);
    log_operation(ctx, "Install package %s from %s in %s failed for interrupted operation.\n", pkg);
    undo_install(ctx, op, op.opkg_reached && opkg_has(ctx, pkg));
    if (const auto split = split_package_url(pkg.url)) ::unlink(local_package_path(ctx, split->second).c_str());
    ::unlink(ctx.paths.conf.c_str());
}

// opkg replaces a package whole: it holds the old version or the new one. Once opkg ran, the dead
// worker may have stored part of the records: they are rebuilt from what opkg holds (with the
// update's source when that is a new version). Either way the units, stopped before opkg ran,
// start again.
void recover_update(engine_context& ctx, operation_info& op, const cwmp_fault& fault) {
    pkg_info& pkg = *op.pkg;
    const pkg_info requested = pkg;
    reload_records(ctx, pkg);
    const std::string version = installed_version(ctx, pkg);
    const bool moved = !version.empty() && version != pkg.du.version.view();
    if (moved) {
        pkg.url = requested.url;
        pkg.username = requested.username;
        pkg.password = requested.password;
        pkg.du.version = version;
    }
    if (moved || (op.opkg_reached && !version.empty())) {
        adopt_unrecorded_units(pkg, op);
        refresh_update_records(ctx, op);
    }
    log_operation(ctx, "Update package %s from %s in %s failed for interrupted operation.\n", pkg);
    ctx.peers.report(op, fault);
    package_event_about(ctx, kLcmUpdateFailed, pkg);
    if (op.opkg_reached) ctx.peers.start(pkg);
}

// A package opkg no longer has is forgotten as the remove would have; one it still has stays.
void recover_remove(engine_context& ctx, operation_info& op, const cwmp_fault& fault) {
    pkg_info& pkg = *op.pkg;
    const OptText requested_name = pkg.du.name;
    reload_records(ctx, pkg);
    // A remove killed after it deleted the unit's record still has the package's name from the
    // request: without it, the half-removed rest could never be finished.
    if (!pkg.du.name || pkg.du.name->empty()) pkg.du.name = requested_name;
    log_operation(ctx, "Uninstall package %s from %s failed for interrupted operation.\n", pkg);
    if (opkg_has(ctx, pkg) || !pkg.du.name || pkg.du.name->empty()) {
        ctx.peers.report(op, fault);
        package_event_about(ctx, kLcmDeleteFailed, pkg);
        return;
    }
    forget_removed_package(ctx, op);
    ctx.peers.report(op, fault);
    package_event_about(ctx, kLcmDeleteComplete, pkg);
}

}  // namespace

int package_opkg_recover_operate(engine_context& ctx, operation_info& op) {
    if (!op.pkg) return -1;
    const cwmp_fault& fault =
        op.recover_fault == kFaultRequestDenied.code ? kFaultRequestDenied : kFaultInternalError;
    switch (op.type) {
        case OPERATION_INSTALL:
            recover_install(ctx, op, fault);
            break;
        case OPERATION_UPDATE:
            recover_update(ctx, op, fault);
            break;
        case OPERATION_REMOVE:
            recover_remove(ctx, op, fault);
            break;
        default:
            return -1;
    }
    return 0;
}

}  // namespace pkgd

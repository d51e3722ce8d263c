#include "daemon/operation_results.hpp"

#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <system_error>
#include <thread>
#include <vector>

#include "daemon/journal_worker.hpp"
#include "daemon/operation_request.hpp"
#include "daemon/package_registry.hpp"
#include "pkgd/datamodel.hpp"
#include "pkgd/platform.hpp"
#include "pkgd/time_stamp.hpp"
#include "ubus/json.hpp"

namespace pkgd {
namespace {

bool send_result(daemon_context& d, const std::string& result_json) {
    ubus::BlobBuf msg;
    if (!ubus::json_load(msg, result_json)) return true;  // nothing sendable will ever come of it
    return d.ctx.connected() && d.ctx.send_event(kOperationResultEvent, msg.members()) == ubus::kOk;
}

// How long start-up waits for a killed worker of an earlier run to go (the loop is not serving yet).
constexpr auto kOrphanWaitStep = std::chrono::milliseconds(20);
constexpr int kOrphanWaitSteps = 100;

// Recovery workers that may die before the daemon reports an operation's failure itself.
constexpr std::int32_t kMaxRecoveries = 3;

// The failure result of `op`, built and sent by the daemon; kept in the journal while unsent.
void report_unrecovered(daemon_context& d, const operation_info& op) {
    ubus::BlobBuf msg;
    const cwmp_fault fault = op.recover_fault == kFaultRequestDenied.code ? kFaultRequestDenied : kFaultInternalError;
    if (!op.pkg || !operation_result_message(msg, op, fault.code, fault.text, package_format_time())) {
        d.journal->remove(op.seq);
        return;
    }
    journal_entry entry = journal_entry_of(op);
    entry.started = true;
    entry.result = ubus::json_format(msg);
    if (send_result(d, entry.result))
        d.journal->remove(op.seq);
    else
        d.journal->write(entry);
}

bool worker_sent_result(int wait_status) {
    return WIFEXITED(wait_status) && WEXITSTATUS(wait_status) == kWorkerResultSent;
}

// After an operation (or its recovery) the package is what its record files say: gone when its
// package file went (a failed or undone install, a finished remove), else reloaded and
// installed. The operation's events say the same, but some may never have reached the daemon
// (sent while the broker restarted); those that arrive later change nothing.
void follow_records(daemon_context& d, const operation_info& op) {
    const registered_pkg* entry = d.s_pkgs.find_object(op.pkg->object_name);
    if (!entry) return;
    pkg_info& pkg = *entry->pkg;
    std::error_code ec;
    const std::string pkg_file = d.files.pkg_path(pkg.id);
    if (pkg_file.empty() || !std::filesystem::exists(pkg_file, ec)) {
        del_pkg(d, op.pkg->object_name);
        return;
    }
    d.files.reload_pkg(pkg);
    pkg.status = PKG_STATUS_INSTALLED;
}

// The journal's entries in order; a file that is no entry is logged (by name: it may hold a
// password) and removed.
std::vector<journal_entry> load_journal(daemon_context& d) {
    return d.journal->load(
        [](const std::string& path) { log_sys(3, 2, 0, 0, "Unreadable journal entry %s removed.\n", path.c_str()); });
}

bool is_queued(const daemon_context& d, std::int32_t seq) {
    return std::any_of(d.queue._info.begin(), d.queue._info.end(),
                       [seq](const auto& op) { return op->seq == seq; });
}

// The record a resumed operation runs on, as a fresh request would have made it.
std::shared_ptr<pkg_info> resumed_package(daemon_context& d, const journal_entry& entry) {
    const pkg_info& kept = *entry.op.pkg;
    const registered_pkg* registered = d.s_pkgs.find_object(kept.object_name);
    switch (entry.op.type) {
        case OPERATION_INSTALL: {
            pkg_info fields = kept;
            fields.status = PKG_STATUS_NEW;
            if (auto pkg = add_pkg(d, kept.id, std::move(fields))) return pkg;
            break;
        }
        case OPERATION_UPDATE:
            if (registered) {
                auto copy = update_working_copy(*registered->pkg);
                copy->url = kept.url;
                copy->username = kept.username;
                copy->password = kept.password;
                copy->version = kept.version;
                return copy;
            }
            break;
        case OPERATION_REMOVE:
            if (registered) return registered->pkg;
            break;
        default:
            break;
    }
    // The package has gone meanwhile: the operation still runs, fails and reports.
    return std::make_shared<pkg_info>(kept);
}

// A worker of an earlier run of the daemon outlives it: it must be gone before its operation is
// recovered, or both would change the package and report. Its process group is its pid. A pid
// taken by another process group leader since is the risk accepted here; a gateway that restarted
// pkgd after a reboot has no such process.
void stop_orphaned_worker(pid_t worker) {
    if (worker <= 0 || ::kill(-worker, 0) != 0) return;
    ::kill(-worker, SIGKILL);
    for (int waited = 0; waited < kOrphanWaitSteps && ::kill(-worker, 0) == 0; ++waited)
        std::this_thread::sleep_for(kOrphanWaitStep);
}

}  // namespace

bool settle_operation(daemon_context& d, operation_info& op, int wait_status) {
    if (!d.journal || op.seq == 0) return true;
    const std::optional<journal_entry> entry = d.journal->read(op.seq);
    if (entry && !entry->result.empty()) {
        if (entry->sent || worker_sent_result(wait_status) || send_result(d, entry->result))
            d.journal->remove(op.seq);
        else
            log_sys(4, 2, 0, 0, "The result of operation %d waits for the bus.\n", op.seq);
        if (op.pkg) follow_records(d, op);
        return true;
    }
    if (worker_sent_result(wait_status)) {
        d.journal->remove(op.seq);
        if (op.pkg) follow_records(d, op);
        return true;
    }
    // The worker died before recording its result: its recovery runs next and reports. A recovery
    // that keeps dying (a crash it cannot get past) must not hold the queue nor the result for
    // ever: the daemon reports the failure itself and leaves the package as it is.
    const bool was_recovery = op.recover_fault != 0;
    if (op.cancelled)
        op.recover_fault = kFaultRequestDenied.code;
    else if (!was_recovery)
        op.recover_fault = kFaultInternalError.code;
    if (was_recovery && ++op.recoveries >= kMaxRecoveries) {
        log_sys(3, 2, 0, 0, "Operation %d could not be recovered; reporting its failure.\n", op.seq);
        report_unrecovered(d, op);
        return true;
    }
    if (entry) {
        op.opkg_reached = op.opkg_reached || entry->op.opkg_reached;
        op.eu_instances = entry->op.eu_instances;
        if (op.pkg && op.pkg->du.index == 0) op.pkg->du.index = entry->op.pkg->du.index;
    }
    log_sys(6, 2, 0, 0, "Operation %d ended without a result; recovering it.\n", op.seq);
    return false;
}

void send_pending_results(daemon_context& d) {
    if (!d.journal) return;
    const auto entries = load_journal(d);
    for (const journal_entry& entry : entries) {
        if (entry.result.empty() || is_queued(d, entry.op.seq)) continue;
        if (entry.sent || send_result(d, entry.result)) d.journal->remove(entry.op.seq);
    }
}

void resume_journal(daemon_context& d) {
    if (!d.journal) return;
    const auto entries = load_journal(d);
    for (const journal_entry& listed : entries) {
        if (listed.started && listed.result.empty()) stop_orphaned_worker(listed.worker);
    }
    d.journal->discard_temporaries();
    for (const journal_entry& listed : entries) {
        // Read again: a worker of the earlier run may have recorded its result before it went.
        const std::optional<journal_entry> reread = d.journal->read(listed.op.seq);
        if (!reread || !reread->result.empty()) continue;  // only its result is missing: sent below
        const journal_entry& entry = *reread;
        auto op = std::make_shared<operation_info>(entry.op);
        if (entry.started) {
            // Recovered on the journal's record: the recovery reads the record files itself.
            op->recover_fault = kFaultInternalError.code;
        } else {
            op->pkg = resumed_package(d, entry);
        }
        d.queue._info.push_back(std::move(op));
    }
    if (d.workers) lcm_request_queue_cb(d.queue, *d.workers);
}

}  // namespace pkgd

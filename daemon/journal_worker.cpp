#include "daemon/journal_worker.hpp"

#include <unistd.h>

#include "pkgd/datamodel.hpp"
#include "pkgd/peer_call.hpp"
#include "pkgd/platform.hpp"
#include "pkgd/time_stamp.hpp"
#include "ubus/json.hpp"

namespace pkgd {
namespace {

// Forwards everything to the gateway's peers, writing the journal entry on the way. The one
// window left: a worker killed after the result reached the bus and before the entry says so;
// the daemon then sends the recorded result again. A duplicate was chosen over a lost result,
// which would leave the management server waiting for ever.
class JournalingPeers final : public EnginePeers {
public:
    JournalingPeers(EnginePeers& inner, const OperationJournal* journal, operation_info& op)
        : inner_(inner), journal_(journal), op_(op) {
        entry_.started = true;
        entry_.worker = ::getpid();
    }

    // True when the entry holds what happened so far.
    bool save() {
        if (!journal_ || op_.seq == 0) return true;
        entry_.op = op_;
        entry_.op.proc.reset();
        return journal_->write(entry_);
    }
    bool sent_unrecorded() const { return sent_unrecorded_; }

    void event(const lcm_event& ev, std::string_view key, std::string_view value) override {
        // Announced right before opkg installs or removes the package.
        if (ev.code == kLcmInstalling.code || ev.code == kLcmDeleting.code) reach_opkg();
        inner_.event(ev, key, value);
    }
    void report(const operation_info& op, const cwmp_fault& fault) override {
        ubus::BlobBuf msg;
        if (!operation_result_message(msg, op, fault.code, fault.text, package_format_time())) return;
        entry_.result = ubus::json_format(msg);
        if (!save()) log_sys(3, 2, 0, 0, "The result of operation %d could not be journaled.\n", op.seq);
        if (broadcast_event(kOperationResultEvent, msg.members()) != ubus::kOk) return;
        entry_.sent = true;
        sent_unrecorded_ = !save();
    }
    std::int32_t create_du_instance() override {
        const std::int32_t index = inner_.create_du_instance();
        // Recorded before the engine stores anything under it, so a recovery finds the instance.
        const std::int32_t before = op_.pkg->du.index;
        op_.pkg->du.index = index;
        save();
        op_.pkg->du.index = before;
        return index;
    }
    std::int32_t create_eu_instance() override {
        const std::int32_t index = inner_.create_eu_instance();
        if (index > 0) {
            op_.eu_instances.push_back(index);
            save();
        }
        return index;
    }
    std::int32_t create_ee_instance() override { return inner_.create_ee_instance(); }
    void delete_instances(int kind, const operation_info& op) override { inner_.delete_instances(kind, op); }
    void set_eu_autostart(std::int32_t eu_index, std::string_view value) override {
        inner_.set_eu_autostart(eu_index, value);
    }
    int start(const pkg_info& pkg) override { return inner_.start(pkg); }
    // An update stops the units right before opkg installs the new version.
    int stop(const pkg_info& pkg) override {
        reach_opkg();
        return inner_.stop(pkg);
    }

private:
    void reach_opkg() {
        op_.opkg_reached = true;
        save();
    }

    EnginePeers& inner_;
    const OperationJournal* journal_;
    operation_info& op_;
    journal_entry entry_;
    bool sent_unrecorded_ = false;
};

}  // namespace

int run_journaled_operation(const engine_context& base, const OperationJournal* journal,
                            const operation_info& queued) {
    operation_info op = queued;
    // The worker's own copy: breadcrumbs and discoveries never reach the daemon's record.
    if (op.pkg) op.pkg = std::make_shared<pkg_info>(*op.pkg);
    JournalingPeers peers(base.peers, journal, op);
    engine_context ctx{base.paths, base.sys, base.commands, base.records, base.identity, base.log, peers};
    peers.save();
    if (op.recover_fault != 0) {
        package_opkg_recover_operate(ctx, op);
    } else {
        switch (op.type) {
            case OPERATION_INSTALL:
                package_opkg_install_operate(ctx, op);
                break;
            case OPERATION_UPDATE:
                package_opkg_update_operate(ctx, op);
                break;
            case OPERATION_REMOVE:
                package_opkg_remove_operate(ctx, op);
                break;
            default:
                break;
        }
    }
    return peers.sent_unrecorded() ? kWorkerResultSent : kWorkerDone;
}

}  // namespace pkgd

#include "daemon/operation_request.hpp"

#include "pkgd/platform.hpp"
#include "pkgd/time_stamp.hpp"

namespace pkgd {

std::shared_ptr<operation_info> new_operation(std::int32_t type, std::shared_ptr<pkg_info> pkg) {
    auto op = std::make_shared<operation_info>();
    op->type = type;
    op->time = package_format_time();
    op->pkg = std::move(pkg);
    return op;
}

std::shared_ptr<pkg_info> update_working_copy(const pkg_info& registered) {
    auto copy = std::make_shared<pkg_info>();
    copy->id = registered.id;
    copy->du.index = registered.du.index;
    copy->du.uuid = registered.du.uuid;
    copy->eu = registered.eu;
    copy->ee = registered.ee;
    copy->object_name = registered.object_name;
    copy->url = registered.url;
    copy->username = registered.username;
    copy->password = registered.password;
    return copy;
}

// The entry is on disk before the request is answered, and goes again with a request that fails:
// nothing will run or report then.
int queue_operation(daemon_context& d, std::shared_ptr<operation_info> op) {
    if (!d.workers) return kQueueStartFailed;
    if (d.journal && !d.journal->accept(*op)) {
        log_sys(3, 2, 0, 0, "The operation journal %s cannot be written; request refused.\n",
                d.files.journal_dir().c_str());
        return kQueueStartFailed;
    }
    const std::int32_t seq = op->seq;
    const int status = enqueue_operation(d.queue, *d.workers, std::move(op));
    if (status != kQueueOk && seq != 0) d.journal->remove(seq);
    return status;
}

}  // namespace pkgd

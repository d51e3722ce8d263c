// The worker's side of the journal: the operation runs with peers that keep its journal entry
// up to date, so that whoever looks at the entry after the worker's end knows how far it got and
// whether its result was recorded and sent.
#pragma once

#include "pkgd/engine.hpp"
#include "pkgd/journal.hpp"

namespace pkgd {

// Exit statuses of a worker. kWorkerResultSent tells the daemon that the result reached the bus
// although the entry could not be marked so (a full disk, say): it must not be sent again.
inline constexpr int kWorkerDone = 0;
inline constexpr int kWorkerResultSent = 3;

// Runs `queued` (its recovery when recover_fault is set) on `base` with journaling peers, writing
// its entry in `journal`: started first, then the breadcrumbs (deployment-unit index, opkg about
// to change the package), then the result before it is sent and "sent" after. The worker's exit
// status.
int run_journaled_operation(const engine_context& base, const OperationJournal* journal,
                            const operation_info& queued);

}  // namespace pkgd

// Exactly one result per accepted operation, whatever dies: the daemon's side of the journal.
// A worker records its result in its journal entry, sends it and marks it sent; the daemon looks
// at the entry when the worker has exited, sends what was recorded but not sent, and runs the
// recovery of an operation whose worker died before recording anything. At start-up the journal
// is read back in sequence order.
#pragma once

#include "daemon/daemon_context.hpp"

namespace pkgd {

// The queue's settle hook for `d` (operation_queue::settle): true when the operation is done.
// With a recorded result the entry goes once the result is on the bus (sent now when the worker
// could not); a result that cannot be sent stays for send_pending_results. Without one the
// operation is marked for its recovery (fault 9002, or 9001 after a cancel) with the worker's
// breadcrumbs, and false returned; after the third recovery worker that died too, the daemon
// sends the failure itself. After a recovery the registry follows the record files.
bool settle_operation(daemon_context& d, operation_info& op, int wait_status);

// Sends every recorded but unsent result of an operation no worker is busy with, removing each
// entry once its result is on the bus. Call it at start-up and whenever the bus is back.
void send_pending_results(daemon_context& d);

// Reads the journal at start-up, after the registry has been restored, and queues its entries in
// sequence order: an operation a worker had started (and not reported) runs as its recovery, one
// not started yet runs as it was asked (an install registers its package again, status New).
// A worker of the earlier run still alive is killed first. Then starts the oldest. New operations
// get later numbers.
void resume_journal(daemon_context& d);

}  // namespace pkgd

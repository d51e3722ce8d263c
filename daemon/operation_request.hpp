// What every request that queues an operation shares: the new operation record, the working copy
// an update runs on, and handing the operation to the queue.
#pragma once

#include <cstdint>
#include <memory>

#include "daemon/daemon_context.hpp"
#include "pkgd/records.hpp"

namespace pkgd {

// An operation of `type` on `pkg`, stamped with the current time; the caller's identifiers zero.
std::shared_ptr<operation_info> new_operation(std::int32_t type, std::shared_ptr<pkg_info> pkg);

// The record an update works on: the registered package's id, deployment unit index and UUID,
// units, environment and object name (the update's events name the registered object), and its
// source and credentials. Everything else, the version asked for included, starts empty.
std::shared_ptr<pkg_info> update_working_copy(const pkg_info& registered);

// Records `op` in d's journal, appends it to d's queue and starts the next operation.
// kQueueStartFailed when it could not be recorded or no worker could be started for it; `op` has
// left the queue and the journal again then.
int queue_operation(daemon_context& d, std::shared_ptr<operation_info> op);

}  // namespace pkgd

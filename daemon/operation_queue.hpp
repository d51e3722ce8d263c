// The operation queue: every accepted install, update and uninstall waits here, oldest first, and
// runs in a worker process of its own, strictly one at a time. The daemon never waits for a worker:
// the loop reports the worker's exit, and the next operation starts in that same callback.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <list>
#include <memory>

#include "pkgd/records.hpp"

namespace ubus {
class Loop;
}

namespace pkgd {

// How workers are started, watched and stopped. The real one forks from the loop; tests put in
// one that fails or records.
class WorkerControl {
public:
    virtual ~WorkerControl() = default;
    // Starts a worker process for `op`, in a process group of its own (so that nothing it starts
    // outlives a cancel). Its pid, or -1 when no process could be started.
    virtual pid_t start(const operation_info& op) = 0;
    // Has `on_exit` called from the loop once the worker has exited and been reaped. False when it
    // cannot be watched.
    virtual bool watch(pid_t pid, std::function<void(pid_t pid, int wait_status)> on_exit) = 0;
    // Kills the worker and everything in its process group.
    virtual void kill_group(pid_t pid) = 0;
};

struct operation_queue {
    std::list<std::shared_ptr<operation_info>> _info;  // oldest first
    bool is_pending = false;                           // a worker runs
    // Asked when an operation's worker has exited, with its wait status: true when the operation
    // is done and leaves the queue; false when its worker died before recording the result, so
    // the operation (its recover_fault set) runs again as its recovery, before anything newer.
    // Empty: every exit is the end.
    std::function<bool(operation_info& op, int wait_status)> settle;
};

// The call statuses of the queue's results.
inline constexpr int kQueueOk = 0;
inline constexpr int kQueueNotFound = 4;
inline constexpr int kQueueStartFailed = 9;

// Starts the oldest waiting operation when no worker runs. kQueueOk when nothing had to start or
// a worker was started and is watched; kQueueStartFailed when none could be started (the operation
// stays queued, is_pending clear) or the worker could not be watched (it is killed again: a worker
// nobody watches would hold the queue for ever).
int lcm_request_queue_cb(operation_queue& queue, WorkerControl& workers);

// A worker has exited: its operation leaves the queue (unless queue.settle keeps it for its
// recovery), then the next one starts.
void opkg_proc_cb(operation_queue& queue, WorkerControl& workers, pid_t pid, int wait_status = 0);

// Cancels the first operation with these identifiers. A running one is killed with its whole
// process group and marked cancelled: when its exit is reported, queue.settle
// decides whether it still needs its recovery. A waiting one is left to run in its turn.
// kQueueNotFound when no operation has these identifiers.
int opkg_cancel(operation_queue& queue, WorkerControl& workers, std::int32_t request_id,
                std::int32_t operate_id, std::int32_t operate_mid);

// Appends `op` and tries to start it (or the oldest waiting one). When the start fails, `op` is
// taken off the queue again and kQueueStartFailed returned: the caller fails its request.
int enqueue_operation(operation_queue& queue, WorkerControl& workers, std::shared_ptr<operation_info> op);

// Workers forked from `loop`. A worker runs `run_operation` with its operation and ends with the
// status it returns; the outcome itself travels as events and the result, not as the status.
class ForkedWorkers final : public WorkerControl {
public:
    ForkedWorkers(ubus::Loop& loop, std::function<int(const operation_info&)> run_operation)
        : loop_(loop), run_operation_(std::move(run_operation)) {}

    pid_t start(const operation_info& op) override;
    bool watch(pid_t pid, std::function<void(pid_t, int)> on_exit) override;
    void kill_group(pid_t pid) override;

private:
    ubus::Loop& loop_;
    std::function<int(const operation_info&)> run_operation_;
};

}  // namespace pkgd

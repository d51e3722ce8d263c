#include "daemon/operation_queue.hpp"

#include <signal.h>
#include <unistd.h>

#include <algorithm>

#include "ubus/loop.hpp"

namespace pkgd {
namespace {

bool runs_in(const std::shared_ptr<operation_info>& op, pid_t pid) {
    return op->proc && op->proc->pid == pid;
}

}  // namespace

int lcm_request_queue_cb(operation_queue& queue, WorkerControl& workers) {
    if (queue.is_pending) return kQueueOk;
    const auto next = std::find_if(queue._info.begin(), queue._info.end(),
                                   [](const auto& op) { return !op->proc; });
    if (next == queue._info.end()) return kQueueOk;

    // The operation is held by the queue until its worker has been reaped, so the worker always
    // starts on live data whatever events arrive meanwhile.
    const std::shared_ptr<operation_info> op = *next;
    queue.is_pending = true;
    const pid_t pid = workers.start(*op);
    if (pid < 0) {
        queue.is_pending = false;
        return kQueueStartFailed;
    }
    auto proc = std::make_shared<worker_proc>(worker_proc{pid, true});
    op->proc = proc;
    const bool watched = workers.watch(pid, [&queue, &workers, proc](pid_t exited, int wait_status) {
        proc->pending = false;
        opkg_proc_cb(queue, workers, exited, wait_status);
    });
    if (!watched) {
        // Nobody would learn of its end: undo the start. The loop reaps every child it is not
        // asked to watch, so the killed worker does not linger.
        workers.kill_group(pid);
        op->proc.reset();
        queue.is_pending = false;
        return kQueueStartFailed;
    }
    return kQueueOk;
}

void opkg_proc_cb(operation_queue& queue, WorkerControl& workers, pid_t pid, int wait_status) {
    const auto it = std::find_if(queue._info.begin(), queue._info.end(),
                                 [pid](const auto& op) { return runs_in(op, pid); });
    if (it != queue._info.end()) {
        queue.is_pending = false;
        const std::shared_ptr<operation_info> op = *it;
        if (!queue.settle || queue.settle(*op, wait_status))
            queue._info.erase(it);
        else
            op->proc.reset();  // the oldest not started: its recovery runs next
    }
    lcm_request_queue_cb(queue, workers);
}

int opkg_cancel(operation_queue& queue, WorkerControl& workers, std::int32_t request_id,
                std::int32_t operate_id, std::int32_t operate_mid) {
    const auto it = std::find_if(queue._info.begin(), queue._info.end(), [&](const auto& op) {
        return op->request_id == request_id && op->operate_id == operate_id && op->operate_mid == operate_mid;
    });
    if (it == queue._info.end()) return kQueueNotFound;
    operation_info& op = **it;
    if (!op.proc || !op.proc->pending) return kQueueOk;
    // The operation stays until its worker's exit is reported: only then can the daemon tell
    // whether the worker had recorded its result or the cancel's undo and result are due.
    op.cancelled = true;
    workers.kill_group(op.proc->pid);
    return kQueueOk;
}

int enqueue_operation(operation_queue& queue, WorkerControl& workers, std::shared_ptr<operation_info> op) {
    const operation_info* mine = op.get();
    queue._info.push_back(std::move(op));
    const int status = lcm_request_queue_cb(queue, workers);
    if (status != kQueueOk) {
        // Only this request's operation is withdrawn; an older one that failed to start with it
        // waits for the next attempt.
        std::erase_if(queue._info, [mine](const auto& queued) { return queued.get() == mine; });
    }
    return status;
}

pid_t ForkedWorkers::start(const operation_info& op) {
    const pid_t pid = loop_.fork_child([this, &op] {
        ::setpgid(0, 0);
        return run_operation_(op);
    });
    // Set from both sides: whichever runs first, a cancel right after the start reaches the group.
    if (pid > 0) ::setpgid(pid, pid);
    return pid;
}

bool ForkedWorkers::watch(pid_t pid, std::function<void(pid_t, int)> on_exit) {
    return loop_.watch_child(pid, std::move(on_exit)) != 0;
}

void ForkedWorkers::kill_group(pid_t pid) {
    ::kill(-pid, SIGKILL);
}

}  // namespace pkgd

// Workers for tests of the queue and of the requests that feed it.
#pragma once

#include <functional>
#include <map>
#include <vector>

#include "daemon/operation_queue.hpp"

namespace pkgd {

// Workers that only exist on paper: each start gets the next pid, and the test decides when one
// exits, whether starting or watching fails.
class RecordedWorkers final : public WorkerControl {
public:
    std::vector<std::int32_t> started;  // request ids, in start order
    std::vector<pid_t> killed;
    bool fail_start = false;
    bool fail_watch = false;

    pid_t start(const operation_info& op) override {
        if (fail_start) return -1;
        started.push_back(op.request_id);
        return next_pid_++;
    }
    bool watch(pid_t pid, std::function<void(pid_t, int)> on_exit) override {
        if (fail_watch) return false;
        exits_[pid] = std::move(on_exit);
        return true;
    }
    void kill_group(pid_t pid) override { killed.push_back(pid); }

    void exit(pid_t pid) {
        auto cb = std::move(exits_.at(pid));
        exits_.erase(pid);
        cb(pid, 0);
    }

private:
    pid_t next_pid_ = 100;
    std::map<pid_t, std::function<void(pid_t, int)>> exits_;
};

}  // namespace pkgd

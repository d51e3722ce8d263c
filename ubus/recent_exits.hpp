// Exit statuses of the children reaped most recently.
//
// The loop reaps every exited child as soon as it learns of it, watched or not, so that none lingers
// as a zombie. A caller that forks and only then watches the child may come too late for the reap;
// this memory lets the watch still learn how the child ended. Bounded: the oldest entry gives way.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <optional>

namespace ubus {

class RecentExits {
public:
    void record(pid_t pid, int wait_status) {
        forget(pid);
        entries_[next_] = Entry{pid, wait_status};
        next_ = (next_ + 1) % entries_.size();
    }

    std::optional<int> find(pid_t pid) const {
        for (const Entry& e : entries_) {
            if (e.pid == pid) return e.wait_status;
        }
        return std::nullopt;
    }

    // A live child now holds this pid: what was recorded belongs to an earlier process.
    void forget(pid_t pid) {
        for (Entry& e : entries_) {
            if (e.pid == pid) e = Entry{};
        }
    }

private:
    struct Entry {
        pid_t pid = 0;  // 0: free
        int wait_status = 0;
    };
    std::array<Entry, 64> entries_{};
    std::size_t next_ = 0;
};

}  // namespace ubus

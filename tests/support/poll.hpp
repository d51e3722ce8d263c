// Waiting for a condition in tests: poll it until it holds or a deadline passes. Tests never sleep a
// fixed time to let something happen, and never to prove that nothing happened: they wait for the
// condition that shows it (a reply, a state, a process that has ended).
#pragma once

#include <chrono>
#include <thread>

namespace testsupport {

// Calls `predicate` until it returns true or `timeout` has passed, pausing `step` between calls;
// true when it held. The predicate is called once more at the deadline, so a slow machine that
// reaches the condition just in time still passes.
template <typename Predicate>
bool poll_until(std::chrono::milliseconds timeout, Predicate&& predicate,
                std::chrono::milliseconds step = std::chrono::milliseconds(5)) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!predicate()) {
        if (std::chrono::steady_clock::now() >= deadline) return predicate();
        std::this_thread::sleep_for(step);
    }
    return true;
}

}  // namespace testsupport

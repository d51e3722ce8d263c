// Timing helpers for the plain benchmark programs.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <vector>

namespace bench {

// Runs `body` `runs` times, prints the median and the mean duration of one run, and returns the
// median (microseconds).
template <typename Body>
double report(const char* what, int runs, Body body) {
    std::vector<double> us;
    us.reserve(static_cast<std::size_t>(runs));
    for (int i = 0; i < runs; ++i) {
        const auto start = std::chrono::steady_clock::now();
        body();
        us.push_back(
            std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count());
    }
    double sum = 0;
    for (double u : us) sum += u;
    std::sort(us.begin(), us.end());
    std::printf("%-58s median %10.1f us   mean %10.1f us   (%d runs)\n", what, us[us.size() / 2],
                sum / static_cast<double>(runs), runs);
    return us[us.size() / 2];
}

}  // namespace bench

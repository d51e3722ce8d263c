#include "ubusd/id_source.hpp"

#include <sys/random.h>
#include <time.h>
#include <unistd.h>

namespace ubusd {

IdSource::IdSource() {
    std::uint64_t seed = 0;
    if (::getrandom(&seed, sizeof(seed), GRND_NONBLOCK) != static_cast<ssize_t>(sizeof(seed))) {
        // Early boot without entropy yet: ids need to be unpredictable-ish, not secret.
        timespec ts{};
        ::clock_gettime(CLOCK_MONOTONIC, &ts);
        seed = static_cast<std::uint64_t>(ts.tv_nsec) ^ (static_cast<std::uint64_t>(ts.tv_sec) << 32) ^
               static_cast<std::uint64_t>(::getpid());
    }
    state_ = seed;
}

// splitmix64: cheap, and every 64-bit state yields a well-mixed output.
std::uint32_t IdSource::draw() {
    std::uint64_t z = (state_ += 0x9e3779b97f4a7c15ull);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
    return static_cast<std::uint32_t>((z ^ (z >> 31)) >> 32);
}

}  // namespace ubusd

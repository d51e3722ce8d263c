// Random ids for clients, objects and types.
#pragma once

#include <cstdint>

namespace ubusd {

// Ids are random so that a reconnecting client, or a new object on a reused path, is never
// mistaken for its predecessor. Values below 1024 are reserved (1..3 are the broker's own
// objects, 0 means "nobody").
class IdSource {
public:
    static constexpr std::uint32_t kFirstId = 1024;

    IdSource();  // seeded from the kernel's random source

    // A fresh id >= kFirstId for which `taken(id)` is false.
    template <typename Taken>
    std::uint32_t next(Taken&& taken) {
        for (;;) {
            const std::uint32_t id = draw();
            if (id >= kFirstId && !taken(id)) return id;
        }
    }

private:
    std::uint32_t draw();
    std::uint64_t state_;
};

}  // namespace ubusd

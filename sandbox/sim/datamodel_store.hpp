// What the simulated CWMP agent holds: instances of multi-instance objects, parameters, and how
// often it was told to commit.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "ubus/blob.hpp"

namespace sandbox::sim {

class DataModelStore {
public:
    // A new instance of the object at `path`. Numbers count up per path from 1 and are never
    // handed out twice, even after a delete (as a TR-069 agent numbers instances).
    std::int32_t add(std::string_view path);
    // False when the object has no such instance.
    bool remove(std::string_view path, std::int32_t instance);
    // Keeps a copy of a named value (replacing one of the same name).
    void set(ubus::Attr parameter);
    void commit() { ++commits_; }
    void clear();

    // "datamodel": {"instances": {"<path>": [numbers]}, "params": {...}, "commits": n}.
    void add_to(ubus::BlobBuf& buf) const;

private:
    struct Object {
        std::int32_t last = 0;
        std::set<std::int32_t> instances;
    };
    std::map<std::string, Object, std::less<>> objects_;
    std::map<std::string, std::vector<std::uint8_t>, std::less<>> params_;  // name -> the attribute
    std::int32_t commits_ = 0;
};

}  // namespace sandbox::sim

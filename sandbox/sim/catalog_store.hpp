// The entries pkgd keeps in the LCM catalog: one per (Type, index), each the members of a record.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "ubus/blob.hpp"

namespace sandbox::sim {

class CatalogStore {
public:
    // Keeps (or replaces) the entry with a copy of `extra`, the members of a table.
    void update(std::string_view type, std::int32_t index, ubus::Bytes extra);
    // False when there was no such entry.
    bool remove(std::string_view type, std::int32_t index);
    void clear() { entries_.clear(); }

    // "catalog": {"<Type>": {"<index>": {extra...}}}, indexes in numeric order.
    void add_to(ubus::BlobBuf& buf) const;

private:
    std::map<std::string, std::map<std::int32_t, std::vector<std::uint8_t>>, std::less<>> entries_;
};

}  // namespace sandbox::sim

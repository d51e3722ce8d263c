#include "catalog_store.hpp"

namespace sandbox::sim {

void CatalogStore::update(std::string_view type, std::int32_t index, ubus::Bytes extra) {
    auto kind = entries_.find(type);
    if (kind == entries_.end()) kind = entries_.emplace(std::string(type), decltype(kind->second){}).first;
    kind->second[index].assign(extra.begin(), extra.end());
}

bool CatalogStore::remove(std::string_view type, std::int32_t index) {
    auto kind = entries_.find(type);
    if (kind == entries_.end() || kind->second.erase(index) == 0) return false;
    if (kind->second.empty()) entries_.erase(kind);
    return true;
}

void CatalogStore::add_to(ubus::BlobBuf& buf) const {
    const auto catalog = buf.open_table("catalog");
    for (const auto& [type, records] : entries_) {
        const auto kind = buf.open_table(type);
        for (const auto& [index, extra] : records) {
            const auto entry = buf.open_table(std::to_string(index));
            buf.add_members(extra);
            buf.close(entry);
        }
        buf.close(kind);
    }
    buf.close(catalog);
}

}  // namespace sandbox::sim

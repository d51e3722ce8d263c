#include "daemon/package_registry.hpp"

#include <utility>
#include <vector>

#include "daemon/daemon_context.hpp"
#include "daemon/package_x_object.hpp"
#include "pkgd/text.hpp"
#include "ubus/wire.hpp"

namespace pkgd {

const registered_pkg* package_registry::find_object(std::string_view object_name) const {
    const auto it = by_object_.find(object_name);
    return it == by_object_.end() ? nullptr : &*it->second;
}

void package_registry::link_front(std::shared_ptr<pkg_info> pkg, std::uint32_t object_id) {
    const auto it = entries_.insert(entries_.begin(), registered_pkg{std::move(pkg), object_id});
    by_id_.emplace(it->pkg->id, it);
    by_object_.emplace(it->pkg->object_name, it);
}

void package_registry::rebind(std::string_view object_name, std::uint32_t object_id) {
    const auto found = by_object_.find(object_name);
    if (found != by_object_.end()) found->second->object_id = object_id;
}

void package_registry::unlink(std::string_view object_name) {
    const auto found = by_object_.find(object_name);
    if (found == by_object_.end()) return;
    const auto it = found->second;
    by_object_.erase(found);
    by_id_.erase(by_id_.find(it->pkg->id));
    entries_.erase(it);
}

std::int32_t package_registry::free_id() const {
    // Among n identifiers at most n numbers are taken, so the answer is at most n + 1.
    std::vector<bool> taken(entries_.size() + 2);
    for (const registered_pkg& entry : entries_) {
        const std::int32_t n = leading_decimal(entry.pkg->id);
        if (n > 0 && static_cast<std::size_t>(n) < taken.size()) taken[static_cast<std::size_t>(n)] = true;
    }
    std::size_t candidate = 1;
    while (taken[candidate]) ++candidate;
    return static_cast<std::int32_t>(candidate);
}

std::string package_object_name(std::string_view packages_object, std::string_view id) {
    std::string name;
    name.reserve(packages_object.size() + 1 + id.size());
    FixedText<256> cut(name.append(packages_object).append(".").append(id));
    return cut.str();
}

std::shared_ptr<pkg_info> add_pkg(daemon_context& d, std::string_view id, pkg_info fields) {
    std::string name = package_object_name(d.object.view(), id);
    // Two long identifiers may share the cut name; the bus would refuse the second object anyway.
    if (d.s_pkgs.has_id(id) || d.s_pkgs.find_object(name)) return nullptr;

    // A method call cannot arrive before the package is linked: calls wait while the connection
    // makes a request of its own.
    const ubus::AddResult added = add_package_x_object(d, name);
    if (added.status != ubus::kOk) return nullptr;

    auto pkg = std::make_shared<pkg_info>(std::move(fields));
    pkg->id.assign(id);
    pkg->object_name = std::move(name);
    d.s_pkgs.link_front(pkg, added.id);
    return pkg;
}

void del_pkg(daemon_context& d, std::string_view name) {
    const registered_pkg* entry = d.s_pkgs.find_object(name);
    if (!entry) return;
    // Not found: the bus no longer holds the object either, so it is gone all the same.
    const int status = d.ctx.remove_object(entry->object_id);
    if (status == ubus::kOk || status == ubus::kNotFound) d.s_pkgs.unlink(name);
}

std::int32_t free_id(daemon_context& d) {
    return d.s_pkgs.free_id();
}

}  // namespace pkgd

// The registry: every package the daemon knows, newest first, each with its own bus object named
// "<Packages object>.<id>". LCM events and the per-package methods find a package by that name.
//
// The registry holds its records through shared pointers: a queued operation keeps the record it
// works on alive even when an event removes the package from the registry while it waits.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>

#include "pkgd/records.hpp"

namespace pkgd {

// One registered package and the id of its bus object.
struct registered_pkg {
    std::shared_ptr<pkg_info> pkg;
    std::uint32_t object_id = 0;
};

// The registry's list and its look-ups, without the bus.
class package_registry {
public:
    using const_iterator = std::list<registered_pkg>::const_iterator;

    // Newest first.
    const_iterator begin() const { return entries_.begin(); }
    const_iterator end() const { return entries_.end(); }
    std::size_t size() const { return entries_.size(); }

    bool has_id(std::string_view id) const { return by_id_.contains(id); }
    // The package whose object is named `object_name`, or null.
    const registered_pkg* find_object(std::string_view object_name) const;

    // Puts `pkg` at the head. Its id and object name must be set, and neither may be registered.
    void link_front(std::shared_ptr<pkg_info> pkg, std::uint32_t object_id);
    // The package of that object name is now reached by the object `object_id` (after the daemon
    // registered its objects again on a new connection). Nothing when there is no such package.
    void rebind(std::string_view object_name, std::uint32_t object_id);
    // Takes the package of that object name out of the registry (nothing when there is none).
    void unlink(std::string_view object_name);

    // The smallest positive integer that no registered identifier reads as (decimal, read as atoi
    // reads it: "01" is 1, "2x" is 2, "abc" is 0). Identifiers of removed packages come back,
    // lowest first.
    std::int32_t free_id() const;

private:
    struct text_hash {
        using is_transparent = void;
        std::size_t operator()(std::string_view s) const { return std::hash<std::string_view>{}(s); }
    };
    using index =
        std::unordered_map<std::string, std::list<registered_pkg>::iterator, text_hash, std::equal_to<>>;

    std::list<registered_pkg> entries_;
    index by_id_;
    index by_object_;
};

// ---------------------------------------------------------------------------------------------
// The daemon's registry (daemon_context::s_pkgs) and the bus objects of its packages

struct daemon_context;

// The per-package object's name: the Packages object's name, ".", the id; cut to 255 characters.
std::string package_object_name(std::string_view packages_object, std::string_view id);

// Registers a package of identifier `id` in d.s_pkgs with its per-package object on d.ctx and
// returns it. `fields` gives the record's other fields (empty: a new package, status New).
// Null when the identifier (or the object name) is already registered or the bus refuses the
// object; nothing changes then.
std::shared_ptr<pkg_info> add_pkg(daemon_context& d, std::string_view id, pkg_info fields = {});

// Removes the package whose per-package object is named `name` from the bus and the registry.
// When the bus refuses to remove the object the package stays registered, unchanged, so that
// the registry never lists a package without the object it is reached by (or the reverse).
void del_pkg(daemon_context& d, std::string_view name);

// The smallest positive integer not taken by a registered identifier.
std::int32_t free_id(daemon_context& d);

}  // namespace pkgd

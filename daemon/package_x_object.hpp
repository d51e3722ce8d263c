// The per-package object: one per registered package, through which it is read (and, later,
// updated, deleted, started and stopped). Every one of them has the same methods, so they share
// one object type, described to the broker once.
#pragma once

#include <memory>

#include "ubus/client.hpp"

namespace pkgd {

// "Get"/"get", "Set"/"set", "Delete"/"del", "Update", "Start", "Stop", "IsLatestVersion", with
// their advertised (flat, dotted) argument lists.
std::shared_ptr<const ubus::ObjectType> package_x_object_type();

}  // namespace pkgd

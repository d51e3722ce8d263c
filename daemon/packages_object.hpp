// The Packages collection object: lists the environment's packages and installs new ones from a
// structured source. Its name is also the prefix of every per-package object's name.
#pragma once

#include <string>
#include <string_view>

#include "daemon/daemon_context.hpp"
#include "ubus/client.hpp"

namespace pkgd {

// "Services.Management.LCM.ExecutionEnvironments.<ee_id>.Packages", cut to 255 characters.
std::string packages_object_name(std::string_view ee_id);

// Registers the object at d.object on d.ctx with "List"/"get" and "Install"/"add", their handlers
// working on `d`.
ubus::AddResult add_package_object(daemon_context& d);

}  // namespace pkgd

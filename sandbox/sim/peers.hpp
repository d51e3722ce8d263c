// The methods of the three simulated peers. Each handler owns its request's reply and completes
// it, at once or later (the service manager answers once its scripts have run), so that the
// simulator can hold any answer back without the handlers knowing.
#pragma once

#include <functional>
#include <span>
#include <string_view>
#include <vector>

#include "catalog_store.hpp"
#include "datamodel_store.hpp"
#include "environments.hpp"
#include "ubus/client.hpp"
#include "ubus/loop.hpp"

namespace sandbox::sim {

using PeerHandler = std::function<void(ubus::Bytes args, ubus::DeferredReply reply)>;

struct PeerMethod {
    std::string_view name;
    std::span<const ubus::Policy> args;  // as advertised in the object's signature
    PeerHandler handler;
};

inline constexpr std::string_view kCatalogObject = "Services.Management.LCM.ExecutionEnvironments";
inline constexpr std::string_view kDataModelObject = "v1.DataModel";
// The service manager of the environment NAME: "Services.Management.LCM.ExecutionEnvironments.NAME.Services".
std::string services_object(std::string_view environment_name);

// "catalog.get", "catalog.update", "catalog.delete". Both references must outlive the methods.
std::vector<PeerMethod> catalog_methods(const std::vector<Environment>& environments, CatalogStore& store);

// "add", "del", "set", "commit".
std::vector<PeerMethod> datamodel_methods(DataModelStore& store);

// "operate": runs the environment's init scripts (see init_scripts.hpp) from `loop`.
std::vector<PeerMethod> service_methods(ubus::Loop& loop);

}  // namespace sandbox::sim

// The fault suite's gateway: pkgd, the simulator and a feed of "app", a client listening to the
// operations' events; and the one line that says what every place of the gateway holds of "app".
#pragma once

#include <string>

#include "gateway_client.hpp"
#include "sandbox/feed/service_feed.hpp"

namespace faults {

inline const std::string kEnvironment = "Services.Management.LCM.ExecutionEnvironments.System";
inline const std::string kPackages = kEnvironment + ".Packages";
inline constexpr std::string_view kOps = "SoftwareModules.Package.System";

struct FaultGateway {
    explicit FaultGateway(const std::string& name);
    // Up, pkgd serving and the client listening.
    bool ready();
    // An operation on the package-operation object: its bus status.
    int operate(std::string_view method, int request, const std::string& fields);
    // Publishes `version` of "app": its URL.
    std::string publish(const std::string& version);

    sandbox::feed::ScratchDir scratch;
    sandbox::feed::ServiceFeed feed;
    sandbox::Gateway gw;
    gwtest::Client bus;
};

// The gateway's inventory (sandbox::Inventory::describe).
std::string world(const sandbox::Gateway& gw);
// The same line for "app" installed in `version`, or not at all ("").
std::string agreeing(const std::string& version);

// The fault codes of the results received so far for the operation with this RequestID.
std::vector<std::string> results_of(gwtest::Client& bus, int request_id);

}  // namespace faults

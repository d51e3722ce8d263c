// A test's own client on a sandbox gateway's bus, for talking to the gateway simulator's peers as
// pkgd does, and reading parts of the simulator's state.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "sandbox/gateway.hpp"
#include "ubus/client.hpp"

namespace sandbox_sim {

inline constexpr std::string_view kCatalog = "Services.Management.LCM.ExecutionEnvironments";
inline constexpr std::string_view kDataModel = "v1.DataModel";
inline constexpr std::string_view kSystemServices =
    "Services.Management.LCM.ExecutionEnvironments.System.Services";

struct Answer {
    int status = -1;
    std::vector<std::string> replies;  // each DATA reply as compact JSON
};

class SimClient {
public:
    explicit SimClient(const sandbox::Gateway& gw);
    bool connected() const { return bus_.connected(); }

    // Looks `object` up and calls `method` with JSON arguments; a failed look-up is the status.
    Answer call(std::string_view object, std::string_view method, std::string_view json = "{}",
                int timeout_ms = 5000);
    bool has_object(std::string_view path);

private:
    ubus::Connection bus_;
};

// One member of the simulator's state ("catalog", "datamodel", "requests") as compact JSON; what
// went wrong when there is no state.
std::string state_of(const sandbox::Gateway& gw, std::string_view member);

// The gateway with the simulator, the root named after the running test.
sandbox::GatewayOptions sim_gateway();

// An executable shell script at `file` (a host path), its directory created as needed.
void write_script(const std::filesystem::path& file, std::string_view body);

}  // namespace sandbox_sim

// The three services of a gateway that pkgd talks to, and the ways the simulator can make each of
// them misbehave.
#pragma once

#include <array>
#include <chrono>
#include <optional>
#include <string_view>

#include "ubus/wire.hpp"

namespace sandbox::sim {

enum class Peer { kCatalog, kDataModel, kServices };
inline constexpr std::array kPeers{Peer::kCatalog, Peer::kDataModel, Peer::kServices};

// "catalog", "datamodel", "services": as the control object and the request log name them.
std::string_view peer_name(Peer peer);
std::optional<Peer> peer_from_name(std::string_view name);

enum class FaultMode {
    kNormal,
    kAbsent,  // the peer's objects are not on the bus
    kSlow,    // every answer comes `delay` late
    kRefuse,  // every request is answered with `status` and no data
    // Answers as usual until `after` LCM events or operation results have been broadcast since the
    // fault was set; from then on no request is answered until the mode changes. A worker thus
    // stops at a known stage of its operation: the broker hands the simulator each event before
    // any later request of the same worker, so the count is exact.
    kHold,
};

// Longer than any time-out of pkgd's (catalog 5000 ms, service manager 2000 ms, data model 1000 ms),
// so that a slow peer is one that the caller gives up on.
inline constexpr std::chrono::milliseconds kDefaultSlowDelay{6000};
inline constexpr int kDefaultRefusal = ubus::kPermissionDenied;

struct Fault {
    FaultMode mode = FaultMode::kNormal;
    std::chrono::milliseconds delay = kDefaultSlowDelay;
    int status = kDefaultRefusal;
    int after = 0;  // of "hold"
};

std::optional<FaultMode> fault_mode_from_name(std::string_view name);
std::string_view fault_mode_name(FaultMode mode);

struct FaultSetting {
    Peer peer = Peer::kCatalog;
    Fault fault;
};

// "PEER=MODE" or "PEER=MODE:N", N being the delay in milliseconds of "slow", the status of
// "refuse" or the events "hold" lets pass; nothing when the text is not of that form.
std::optional<FaultSetting> parse_fault_setting(std::string_view text);

}  // namespace sandbox::sim

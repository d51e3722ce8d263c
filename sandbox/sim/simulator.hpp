// The gateway simulator: the three peers pkgd talks to (LCM catalog, CWMP data-model agent,
// service manager) on one bus connection, and the control object "Sandbox.GatewaySim" through
// which tests inspect what the peers were asked and make them misbehave.
//
// Control methods:
//   state {}                         -> {"catalog": {"<Type>": {"<index>": {extra...}}},
//                                        "datamodel": {"instances": {"<path>": [n...]},
//                                                      "params": {...}, "commits": n},
//                                        "requests": [{"peer", "object", "method", "data"}...],
//                                        "events": n, "held": n}
//                                    events: the LCM events and operation results broadcast since
//                                    the start; held: the requests a holding peer has not answered
//   reset {"all": bool}              forgets the requests; with "all" also the catalog entries and
//                                    the data model (instance numbers start again at 1)
//   fault {"peer", "mode", "delay", "status"}
//                                    peer "catalog" | "datamodel" | "services";
//                                    mode "normal" | "absent" | "slow" | "refuse" | "hold"
//                                    (see fault.hpp); "after": the events "hold" lets pass
//                                    first. Changing a held peer's mode answers what it held.
//   configure {"environments": [...]} replaces the environments (see environments.hpp) and with
//                                    them the service managers' objects
//
// Requests are logged when they arrive, also those refused or held back. A slow peer handles its
// request only when the delay has passed, from a loop timer: everything else is served meanwhile.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "catalog_store.hpp"
#include "datamodel_store.hpp"
#include "environments.hpp"
#include "fault.hpp"
#include "peers.hpp"
#include "request_log.hpp"
#include "ubus/client.hpp"
#include "ubus/loop.hpp"

namespace sandbox::sim {

inline constexpr std::string_view kControlObject = "Sandbox.GatewaySim";

class Simulator {
public:
    Simulator(ubus::Loop& loop, std::vector<Environment> environments);
    Simulator(const Simulator&) = delete;
    Simulator& operator=(const Simulator&) = delete;

    // Connects to the broker at `socket`, offers every peer that is not absent and the control
    // object, and serves from the loop; when the broker goes away, the loop is stopped. A bus
    // status; `error` says what failed.
    int start(std::string_view socket, std::span<const FaultSetting> faults, std::string& error);
    // Whether the broker went away.
    bool lost() const { return lost_; }

private:
    std::size_t slot(Peer peer) const { return static_cast<std::size_t>(peer); }
    std::vector<std::string> object_paths(Peer peer) const;
    std::shared_ptr<const ubus::ObjectType> make_peer_type(Peer peer, std::vector<PeerMethod> methods);
    // A request whose answer waits: for a slow peer's timer, or for a held peer's release.
    struct HeldCall {
        PeerHandler handler;
        std::vector<std::uint8_t> args;
        ubus::DeferredReply reply;
        void answer() { handler(args, std::move(reply)); }
    };

    int serve(Peer peer, const PeerHandler& handler, ubus::Request& req);
    int listen_to_operations();
    void arm(Peer peer, const Fault& fault);
    int offer(Peer peer);
    void withdraw(Peer peer);

    std::shared_ptr<const ubus::ObjectType> make_control_type();
    int set_fault(Peer peer, const Fault& fault);
    int configure(std::vector<Environment> environments);
    void reset(bool all);
    void add_state(ubus::BlobBuf& buf) const;

    ubus::Loop& loop_;
    ubus::Connection bus_;
    std::vector<Environment> environments_;
    CatalogStore catalog_;
    DataModelStore datamodel_;
    RequestLog requests_;
    std::array<Fault, kPeers.size()> faults_{};
    std::size_t events_ = 0;
    std::array<std::size_t, kPeers.size()> hold_from_{};  // the event count a hold starts at
    std::array<std::vector<std::shared_ptr<HeldCall>>, kPeers.size()> held_;
    std::array<std::shared_ptr<const ubus::ObjectType>, kPeers.size()> types_;
    std::array<std::vector<std::uint32_t>, kPeers.size()> objects_;  // on the bus now
    bool lost_ = false;
};

}  // namespace sandbox::sim

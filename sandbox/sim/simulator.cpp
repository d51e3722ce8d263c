#include "simulator.hpp"

#include <algorithm>
#include <utility>

namespace sandbox::sim {

Simulator::Simulator(ubus::Loop& loop, std::vector<Environment> environments)
    : loop_(loop), environments_(std::move(environments)) {
    types_[slot(Peer::kCatalog)] = make_peer_type(Peer::kCatalog, catalog_methods(environments_, catalog_));
    types_[slot(Peer::kDataModel)] = make_peer_type(Peer::kDataModel, datamodel_methods(datamodel_));
    types_[slot(Peer::kServices)] = make_peer_type(Peer::kServices, service_methods(loop_));
}

int Simulator::start(std::string_view socket, std::span<const FaultSetting> faults, std::string& error) {
    for (const FaultSetting& setting : faults) arm(setting.peer, setting.fault);
    if (int status = bus_.connect(socket); status != ubus::kOk) {
        error = "cannot connect to the broker at " + std::string(socket);
        return status;
    }
    if (int status = listen_to_operations(); status != ubus::kOk) {
        error = "cannot listen to the operations' events";
        return status;
    }
    bus_.on_disconnect([this] {
        lost_ = true;
        loop_.stop();
    });
    for (Peer peer : kPeers) {
        if (faults_[slot(peer)].mode == FaultMode::kAbsent) continue;
        if (int status = offer(peer); status != ubus::kOk) {
            error = "cannot offer the " + std::string(peer_name(peer)) + " objects";
            return status;
        }
    }
    if (int status = bus_.add_object(kControlObject, make_control_type()).status; status != ubus::kOk) {
        error = "cannot offer " + std::string(kControlObject);
        return status;
    }
    bus_.attach(loop_);
    return ubus::kOk;
}

std::vector<std::string> Simulator::object_paths(Peer peer) const {
    switch (peer) {
        case Peer::kCatalog:
            return {std::string(kCatalogObject)};
        case Peer::kDataModel:
            return {std::string(kDataModelObject)};
        case Peer::kServices:
            break;
    }
    std::vector<std::string> paths;
    for (const Environment& env : environments_) {
        if (!env.name) continue;
        std::string path = services_object(*env.name);
        if (std::find(paths.begin(), paths.end(), path) == paths.end()) paths.push_back(std::move(path));
    }
    return paths;
}

std::shared_ptr<const ubus::ObjectType> Simulator::make_peer_type(Peer peer,
                                                                  std::vector<PeerMethod> methods) {
    std::vector<ubus::MethodDef> defs;
    defs.reserve(methods.size());
    for (PeerMethod& method : methods) {
        defs.push_back(
            {method.name, method.args, [this, peer, handler = std::move(method.handler)](ubus::Request& req) {
                 return serve(peer, handler, req);
             }});
    }
    return std::make_shared<const ubus::ObjectType>(defs);
}

int Simulator::serve(Peer peer, const PeerHandler& handler, ubus::Request& req) {
    requests_.record(peer, req.path(), req.method(), req.args());
    const Fault& fault = faults_[slot(peer)];
    if (fault.mode == FaultMode::kRefuse) return fault.status;
    const bool holding = fault.mode == FaultMode::kHold && events_ >= hold_from_[slot(peer)];
    if (fault.mode != FaultMode::kSlow && !holding) {
        handler(req.args(), req.defer());
        return ubus::kOk;  // the handler has taken the final status over
    }
    // Timer callbacks are copied, the reply is not: both travel in one shared call.
    const ubus::Bytes args = req.args();
    auto held = std::make_shared<HeldCall>(HeldCall{handler, {args.begin(), args.end()}, req.defer()});
    if (holding) {
        held_[slot(peer)].push_back(std::move(held));
    } else {
        loop_.add_timer(fault.delay, [held] { held->answer(); });
    }
    return ubus::kOk;
}

int Simulator::listen_to_operations() {
    const ubus::AddResult listener =
        bus_.listen("Services.Management.LCM", [this](std::string_view, ubus::Bytes) { ++events_; });
    if (listener.status != ubus::kOk) return listener.status;
    return bus_.register_event(listener.id, "SOFTWAREMODULES.PACKAGE.OPERATIONSRESULT");
}

void Simulator::arm(Peer peer, const Fault& fault) {
    faults_[slot(peer)] = fault;
    hold_from_[slot(peer)] = events_ + static_cast<std::size_t>(fault.after);
    for (const auto& held : std::exchange(held_[slot(peer)], {})) held->answer();
}

int Simulator::offer(Peer peer) {
    auto& ids = objects_[slot(peer)];
    for (const std::string& path : object_paths(peer)) {
        const ubus::AddResult added = bus_.add_object(path, types_[slot(peer)]);
        if (added.status != ubus::kOk) return added.status;
        ids.push_back(added.id);
    }
    return ubus::kOk;
}

void Simulator::withdraw(Peer peer) {
    auto& ids = objects_[slot(peer)];
    for (std::uint32_t id : ids) bus_.remove_object(id);
    ids.clear();
}

}  // namespace sandbox::sim

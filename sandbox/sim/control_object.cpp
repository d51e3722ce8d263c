// The simulator's control object: state, reset, faults, environments.
#include <cstdio>

#include "simulator.hpp"

namespace sandbox::sim {
namespace {

using ubus::Policy;
using ubus::Type;

constexpr Policy kResetArgs[] = {{"all", Type::Bool}};
constexpr Policy kFaultArgs[] = {
    {"peer", Type::String}, {"mode", Type::String}, {"delay", Type::Int32}, {"status", Type::Int32},
    {"after", Type::Int32}};
constexpr Policy kConfigureArgs[] = {{"environments", Type::Array}};

}  // namespace

std::shared_ptr<const ubus::ObjectType> Simulator::make_control_type() {
    return ubus::ObjectType::make({
        {"state",
         {},
         [this](ubus::Request& req) {
             ubus::BlobBuf state;
             add_state(state);
             return req.reply(state);
         }},
        {"reset", kResetArgs,
         [this](ubus::Request& req) {
             reset(ubus::parse(kResetArgs, req.args())[0].as_bool());
             return ubus::kOk;
         }},
        {"fault", kFaultArgs,
         [this](ubus::Request& req) {
             const auto tb = ubus::parse(kFaultArgs, req.args());
             const auto peer = peer_from_name(tb[0].as_string());
             const auto mode = fault_mode_from_name(tb[1].as_string());
             if (!peer || !mode || (tb[2] && tb[2].as_i32() < 0) || (tb[4] && tb[4].as_i32() < 0))
                 return int{ubus::kInvalidArgument};
             Fault fault{*mode};
             if (tb[2]) fault.delay = std::chrono::milliseconds(tb[2].as_i32());
             if (tb[3]) fault.status = tb[3].as_i32();
             if (tb[4]) fault.after = tb[4].as_i32();
             return set_fault(*peer, fault);
         }},
        {"configure", kConfigureArgs,
         [this](ubus::Request& req) {
             std::string error;
             auto environments = parse_configuration(req.args(), error);
             if (!environments) {
                 std::fprintf(stderr, "gateway-sim: configure: %s\n", error.c_str());
                 return int{ubus::kInvalidArgument};
             }
             return configure(std::move(*environments));
         }},
    });
}

int Simulator::set_fault(Peer peer, const Fault& fault) {
    const bool was_absent = faults_[slot(peer)].mode == FaultMode::kAbsent;
    const bool absent = fault.mode == FaultMode::kAbsent;
    arm(peer, fault);
    if (absent && !was_absent) withdraw(peer);
    if (!absent && was_absent) return offer(peer);
    return ubus::kOk;
}

int Simulator::configure(std::vector<Environment> environments) {
    environments_ = std::move(environments);
    if (faults_[slot(Peer::kServices)].mode == FaultMode::kAbsent) return ubus::kOk;
    withdraw(Peer::kServices);
    return offer(Peer::kServices);
}

void Simulator::reset(bool all) {
    requests_.clear();
    if (!all) return;
    catalog_.clear();
    datamodel_.clear();
}

void Simulator::add_state(ubus::BlobBuf& buf) const {
    catalog_.add_to(buf);
    datamodel_.add_to(buf);
    requests_.add_to(buf);
    std::size_t held = 0;
    for (const auto& calls : held_) held += calls.size();
    buf.add_i32("events", static_cast<std::int32_t>(events_));
    buf.add_i32("held", static_cast<std::int32_t>(held));
}

}  // namespace sandbox::sim

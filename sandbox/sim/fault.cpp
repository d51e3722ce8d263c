#include "fault.hpp"

#include <charconv>

namespace sandbox::sim {
namespace {

constexpr std::array<std::string_view, 3> kPeerNames{"catalog", "datamodel", "services"};
constexpr std::array<std::string_view, 5> kModeNames{"normal", "absent", "slow", "refuse", "hold"};

bool parse_number(std::string_view text, int& out) {
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), out);
    return !text.empty() && ec == std::errc() && end == text.data() + text.size();
}

}  // namespace

std::string_view peer_name(Peer peer) {
    return kPeerNames[static_cast<std::size_t>(peer)];
}

std::optional<Peer> peer_from_name(std::string_view name) {
    for (Peer peer : kPeers) {
        if (peer_name(peer) == name) return peer;
    }
    return std::nullopt;
}

std::string_view fault_mode_name(FaultMode mode) {
    return kModeNames[static_cast<std::size_t>(mode)];
}

std::optional<FaultMode> fault_mode_from_name(std::string_view name) {
    for (std::size_t i = 0; i < kModeNames.size(); ++i) {
        if (kModeNames[i] == name) return static_cast<FaultMode>(i);
    }
    return std::nullopt;
}

std::optional<FaultSetting> parse_fault_setting(std::string_view text) {
    const auto equals = text.find('=');
    if (equals == std::string_view::npos) return std::nullopt;
    std::string_view mode_text = text.substr(equals + 1);
    std::optional<std::string_view> number;
    if (const auto colon = mode_text.find(':'); colon != std::string_view::npos) {
        number = mode_text.substr(colon + 1);
        mode_text = mode_text.substr(0, colon);
    }
    const auto peer = peer_from_name(text.substr(0, equals));
    const auto mode = fault_mode_from_name(mode_text);
    if (!peer || !mode) return std::nullopt;

    FaultSetting setting{*peer, {*mode}};
    if (number) {
        int value = 0;
        if (!parse_number(*number, value)) return std::nullopt;
        if (*mode == FaultMode::kSlow && value >= 0) {
            setting.fault.delay = std::chrono::milliseconds(value);
        } else if (*mode == FaultMode::kRefuse) {
            setting.fault.status = value;
        } else if (*mode == FaultMode::kHold && value >= 0) {
            setting.fault.after = value;
        } else {
            return std::nullopt;
        }
    }
    return setting;
}

}  // namespace sandbox::sim

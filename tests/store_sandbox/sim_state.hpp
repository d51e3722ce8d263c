// Reading the gateway simulator's state: catalog entries and the requests each peer received.
#pragma once

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sandbox/gateway.hpp"
#include "ubus/json.hpp"

namespace store_sandbox {

class SimState {
public:
    // Fails the test when the state cannot be had: an empty state must not pass for a clean one.
    explicit SimState(const sandbox::Gateway& gw) : reply_(gw.sim_state()) {
        EXPECT_TRUE(reply_.ok()) << "the simulator's state: status " << reply_.status;
    }

    // The catalog entry of a "Type" and index: its extra members as JSON.
    std::optional<std::string> catalog_entry(std::string_view type, std::int32_t index) const {
        const ubus::Attr entry = member(member(member(top(), "catalog"), type), std::to_string(index));
        if (!entry) return std::nullopt;
        std::string json;
        ubus::json_format_list(json, entry);
        return json;
    }

    // Every catalog entry, as "Type/index".
    std::vector<std::string> catalog_keys() const {
        std::vector<std::string> keys;
        for (ubus::Attr type : member(top(), "catalog").children())
            for (ubus::Attr entry : type.children())
                keys.push_back(std::string(type.name()) + "/" + std::string(entry.name()));
        return keys;
    }

    // The requests one peer received, as "object method data-as-JSON".
    std::vector<std::string> requests(std::string_view peer) const {
        std::vector<std::string> found;
        for (ubus::Attr request : member(top(), "requests").children()) {
            if (member(request, "peer").as_string() != peer) continue;
            std::string text(member(request, "object").as_string());
            text.append(" ").append(member(request, "method").as_string()).append(" ");
            ubus::json_format_list(text, member(request, "data"));
            found.push_back(std::move(text));
        }
        return found;
    }

private:
    ubus::AttrList top() const { return ubus::AttrList(ubus::Bytes(reply_.data)); }

    static ubus::Attr member(ubus::AttrList members, std::string_view name) {
        for (ubus::Attr a : members)
            if (a.name() == name) return a;
        return {};
    }
    static ubus::Attr member(ubus::Attr container, std::string_view name) {
        return member(container.children(), name);
    }

    sandbox::SimReply reply_;
};

}  // namespace store_sandbox

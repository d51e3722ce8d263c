// What the registry's sandbox tests share: package record files seeded into a gateway root, and
// pkgd's packages as a client sees them over the bus.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "gateway_client.hpp"
#include "pkgd/lcm_events.hpp"
#include "pkgd/record_files.hpp"
#include "ubus/json.hpp"

namespace registry_test {

namespace fs = std::filesystem;
using namespace pkgd;

inline constexpr std::string_view kPackages = "Services.Management.LCM.ExecutionEnvironments.System.Packages";
inline constexpr std::string_view kEnvironment = "Services.Management.LCM.ExecutionEnvironments.System";

inline std::string object_of(std::string_view id) {
    return std::string(kPackages) + "." + std::string(id);
}

inline sandbox::GatewayOptions pkgd_gateway(std::function<void(const fs::path&)> prepare) {
    auto options = gwtest::named_gateway();
    options.pkgd = true;
    options.prepare = std::move(prepare);
    return options;
}

// The record files below a gateway root, written as a worker writes them (the catalog not told).
inline RecordFiles records_in(const fs::path& root) {
    return RecordFiles((root / "usr/local/package").string(), "System", false);
}

inline pkg_info installed_package(std::string id, std::int32_t du) {
    pkg_info pkg;
    pkg.id = std::move(id);
    pkg.url = "http://feed.example/" + pkg.id + ".ipk";
    pkg.du.index = du;
    pkg.du.uuid = "uuid-" + pkg.id;
    pkg.du.name = "app-" + pkg.id;
    pkg.du.version = "1.0";
    pkg.du.enabled = 1;
    pkg.du.time = "2024-03-05T07:08:09+01:00";
    return pkg;
}

inline void seed(const fs::path& root, const pkg_info& pkg) {
    const RecordFiles files = records_in(root);
    files.store_du(pkg);
    files.store_eu(pkg);
    files.store_ee(pkg);
    files.store_pkg(pkg);
}

// The reply's "Body" as JSON ("" without one).
inline std::string body_json(const gwtest::Reply& r) {
    const std::string json = r.first();
    const auto at = json.find(R"(,"Body":)");
    return at == std::string::npos ? "" : json.substr(at + 8, json.size() - at - 9);
}

// The packages of a "List" reply in order: identifier and package table as JSON.
inline std::vector<std::pair<std::string, std::string>> listed(const gwtest::Reply& r) {
    std::vector<std::pair<std::string, std::string>> packages;
    if (r.data.empty()) return packages;
    for (ubus::Attr body : ubus::AttrList(r.data.front()))
        for (ubus::Attr list : body.children())
            for (ubus::Attr pkg : list.name() == "List" ? list.children() : ubus::AttrList()) {
                std::string json;
                ubus::json_format_list(json, pkg);
                packages.emplace_back(std::string((*pkg.children().begin()).as_string()), std::move(json));
            }
    return packages;
}

inline std::vector<std::string> listed_ids(const gwtest::Reply& r) {
    std::vector<std::string> ids;
    for (auto& [id, table] : listed(r)) ids.push_back(id);
    return ids;
}

// The package's "Status" once it reads `expected`, else its last table read within a while.
inline std::string wait_status(gwtest::Client& probe, std::string_view id, std::string_view expected) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    std::string table;
    for (; std::chrono::steady_clock::now() < deadline;
         std::this_thread::sleep_for(std::chrono::milliseconds(20))) {
        table = body_json(probe.call(object_of(id), "Get"));
        if (table.find(R"("Status":")" + std::string(expected) + '"') != std::string::npos)
            return std::string(expected);
    }
    return table;
}

inline void send_lcm(gwtest::Client& probe, const lcm_event& event, std::string_view package_object) {
    ubus::BlobBuf msg;
    lcm_event_message(msg, event.code, event.name, kLcmPackageIdKey, package_object);
    ASSERT_EQ(probe.bus().send_event(kLcmEventType, msg.members()), ubus::kOk);
}

}  // namespace registry_test

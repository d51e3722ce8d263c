// What the registry's sandbox tests share: package record files seeded into a gateway root, and
// pkgd's packages as a client sees them over the bus.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "../daemon_startup/bus_probe.hpp"
#include "pkgd/lcm_events.hpp"
#include "pkgd/record_files.hpp"
#include "ubus/json.hpp"

namespace pkgd::testing {

namespace fs = std::filesystem;

inline constexpr std::string_view kPackages = "Services.Management.LCM.ExecutionEnvironments.System.Packages";
inline constexpr std::string_view kEnvironment = "Services.Management.LCM.ExecutionEnvironments.System";

inline std::string object_of(std::string_view id) {
    return std::string(kPackages) + "." + std::string(id);
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

inline void write_text(const fs::path& path, std::string_view text) {
    std::ofstream(path, std::ios::binary) << text;
}

inline CallResult call_json(BusProbe& probe, std::string_view path, std::string_view method,
                            std::string_view json_args) {
    ubus::BlobBuf args;
    EXPECT_TRUE(ubus::json_load(args, json_args)) << json_args;
    return probe.call(path, method, args);
}

// The reply's "Body" as JSON ("" without one).
inline std::string body_json(const CallResult& r) {
    std::string json;
    if (!r.replies.empty())
        for (ubus::Attr a : ubus::AttrList(ubus::Bytes(r.replies.front())))
            if (a.name() == "Body") ubus::json_format_list(json, a);
    return json;
}

// The packages of a "List" reply in order: identifier and package table as JSON.
inline std::vector<std::pair<std::string, std::string>> listed(const CallResult& r) {
    std::vector<std::pair<std::string, std::string>> packages;
    if (r.replies.empty()) return packages;
    for (ubus::Attr body : ubus::AttrList(ubus::Bytes(r.replies.front())))
        for (ubus::Attr list : body.children())
            for (ubus::Attr pkg : list.name() == "List" ? list.children() : ubus::AttrList()) {
                std::string json;
                ubus::json_format_list(json, pkg);
                packages.emplace_back(std::string((*pkg.children().begin()).as_string()), std::move(json));
            }
    return packages;
}

inline std::vector<std::string> listed_ids(const CallResult& r) {
    std::vector<std::string> ids;
    for (auto& [id, table] : listed(r)) ids.push_back(id);
    return ids;
}

// The package's "Status" once it reads `expected`, else the last one read within a while.
inline std::string wait_status(BusProbe& probe, std::string_view id, std::string_view expected) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    std::string table;
    do {
        table = body_json(probe.call(object_of(id), "Get"));
        if (table.find(R"("Status":")" + std::string(expected) + '"') != std::string::npos)
            return std::string(expected);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    } while (std::chrono::steady_clock::now() < deadline);
    return table;
}

inline void send_lcm(BusProbe& probe, const lcm_event& event, std::string_view package_object) {
    ubus::BlobBuf msg;
    lcm_event_message(msg, event.code, event.name, kLcmPackageIdKey, package_object);
    ASSERT_EQ(probe.bus().send_event(kLcmEventType, msg.members()), ubus::kOk);
}

}  // namespace pkgd::testing

#include "bus_probe.hpp"

#include <algorithm>
#include <filesystem>
#include <thread>

#include "ubus/json.hpp"
#include "ubus/wire.hpp"

namespace pkgd::testing {

namespace fs = std::filesystem;

sandbox::GatewayOptions pkgd_gateway() {
    sandbox::GatewayOptions options;
    const auto* test = ::testing::UnitTest::GetInstance()->current_test_info();
    options.name = std::string(test->test_suite_name()) + "." + test->name();
    options.pkgd = true;
    return options;
}

BusProbe::BusProbe(const sandbox::Gateway& gw) {
    bus_.set_request_timeout(10000);
    bus_.connect(gw.socket_path().string());
}

CallResult BusProbe::call(std::string_view path, std::string_view method, const ubus::BlobBuf& args) {
    CallResult r;
    std::uint32_t id = 0;
    r.status = bus_.lookup_id(path, id);
    if (r.status != ubus::kOk) return r;
    r.status = bus_.invoke(
        id, method, args.members(),
        [&r](ubus::Bytes members) {
            if (r.replies.empty()) ubus::json_format_list(r.json, members, false);
            r.replies.emplace_back(members.begin(), members.end());
        },
        10000);
    return r;
}

bool BusProbe::has_object(std::string_view path) {
    bool found = false;
    bus_.lookup(path, [&](const ubus::ObjectInfo& o) { found = found || o.path == path; });
    return found;
}

std::optional<std::uint32_t> BusProbe::wait_for_object(std::string_view path,
                                                       std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    do {
        std::uint32_t id = 0;
        if (bus_.lookup_id(path, id) == ubus::kOk && id != 0) return id;
        std::this_thread::sleep_for(20ms);
    } while (std::chrono::steady_clock::now() < deadline);
    return std::nullopt;
}

bool BusProbe::wait_until_gone(std::string_view path, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    do {
        if (!has_object(path)) return true;
        std::this_thread::sleep_for(20ms);
    } while (std::chrono::steady_clock::now() < deadline);
    return false;
}

std::string BusProbe::signature(std::string_view path) {
    std::string json;
    bus_.lookup(path, [&](const ubus::ObjectInfo& o) {
        if (o.path == path) ubus::json_format_list(json, o.signature, false);
    });
    return json;
}

bool BusProbe::hold(std::string_view path) {
    static const auto type = ubus::ObjectType::make({{"Get", {}, [](ubus::Request&) { return 0; }}});
    return bus_.add_object(path, type).status == ubus::kOk;
}

BusMonitor::BusMonitor(const sandbox::Gateway& gw) {
    bus_.set_request_timeout(10000);
    if (bus_.connect(gw.socket_path().string()) != ubus::kOk) return;
    const std::uint32_t self = bus_.client_id();
    bus_.on_monitor([this, self](ubus::Bytes attributes) {
        // Monitor bodies number their own attributes: 0 client, 2 sent by the broker, 4 type,
        // 5 the message body's attributes.
        std::array<ubus::Attr, 6> at{};
        for (ubus::Attr a : ubus::AttrList(attributes))
            if (a.id() < at.size()) at[a.id()] = a;
        const std::uint32_t client = at[0].u32();
        if (client == self || at[2].u8() != 0) return;  // only what others sent to the broker
        BrokerRequest r;
        r.client = client;
        r.type = static_cast<ubus::MsgType>(at[4].u32());
        const ubus::MsgAttrs msg(at[5].payload());
        if (r.type == ubus::MsgType::AddObject) {
            r.path = msg.str(ubus::kAttrObjPath);
        } else if (r.type == ubus::MsgType::Invoke) {
            r.target = msg.u32(ubus::kAttrObjId);
            r.method = msg.str(ubus::kAttrMethod);
            ubus::json_format_list(r.data, msg.data(), false);
        } else {
            return;
        }
        requests_.push_back(std::move(r));
    });
    active_ = bus_.invoke(ubus::kMonitorObject, "add", {}, nullptr, 10000) == ubus::kOk;
}

bool BusMonitor::wait(const std::function<bool(const std::vector<BrokerRequest>&)>& done,
                      std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!done(requests_)) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return false;
        if (bus_.dispatch(static_cast<int>(left.count())) != ubus::kOk) return false;
    }
    return true;
}

std::vector<std::string> root_tree(const sandbox::Gateway& gw) {
    std::vector<std::string> paths;
    const fs::path root = gw.root();
    for (auto it = fs::recursive_directory_iterator(root, fs::directory_options::skip_permission_denied);
         it != fs::recursive_directory_iterator(); ++it) {
        const std::string rel = it->path().lexically_relative(root).string();
        if (rel == "var/run/sandbox" || rel == "var/log" || rel == "var/run/ubus") {
            it.disable_recursion_pending();
            continue;
        }
        paths.push_back(rel);
    }
    std::sort(paths.begin(), paths.end());
    return paths;
}

}  // namespace pkgd::testing

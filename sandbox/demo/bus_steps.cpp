#include "bus_steps.hpp"

#include <cstdio>

#include "ubus/json.hpp"

namespace demo {
namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr int kCallTimeoutMs = 30000;  // IsLatestVersion asks the feed before answering
constexpr auto kProgressEvery = 5s;

std::string compact_json(ubus::Bytes members) {
    std::string json;
    ubus::json_format_list(json, members, false);
    return json;
}

// The value of the string member `key`, looked for at any depth.
std::string find_text(ubus::AttrList members, std::string_view key) {
    for (ubus::Attr a : members) {
        if (a.name() == key && a.type() == ubus::Type::String) return std::string(a.as_string());
        if (a.type() == ubus::Type::Table || a.type() == ubus::Type::Array) {
            std::string inner = find_text(a.children(), key);
            if (!inner.empty()) return inner;
        }
    }
    return {};
}

OperationResult read_result(ubus::Bytes data) {
    OperationResult r;
    for (ubus::Attr a : ubus::AttrList(data)) {
        const std::string_view name = a.name();
        if (name == "RequestID") r.request_id = a.as_i32();
        if (name == "OperationPerformed") r.performed = a.as_string();
        if (name == "UUID") r.uuid = a.as_string();
        if (name == "FaultCode") r.fault_code = a.as_i32();
    }
    return r;
}

}  // namespace

bool EventWatch::start(const std::string& socket) {
    if (bus_.connect(socket) != ubus::kOk) return false;
    auto handler = [this](std::string_view type, ubus::Bytes data) { on_event(type, data); };
    return bus_.listen(kLcmEvents, handler).status == ubus::kOk &&
           bus_.listen(kResultEvent, handler).status == ubus::kOk;
}

void EventWatch::on_event(std::string_view type, ubus::Bytes data) {
    std::printf("  <- event %.*s %s\n", static_cast<int>(type.size()), type.data(), compact_json(data).c_str());
    std::fflush(stdout);
    if (type == kResultEvent) {
        results_.push_back(read_result(data));
    } else if (std::string id = find_text(ubus::AttrList(data), "PackageId"); !id.empty()) {
        last_package_ = std::move(id);
    }
}

void EventWatch::pump(std::chrono::milliseconds timeout) {
    bus_.dispatch(static_cast<int>(timeout.count()));
}

std::optional<OperationResult> EventWatch::wait_result(const std::function<bool(const OperationResult&)>& wanted,
                                                       std::chrono::seconds timeout) {
    const Clock::time_point start = Clock::now();
    Clock::time_point next_progress = start + kProgressEvery;
    for (;;) {
        for (const OperationResult& r : results_)
            if (wanted(r)) return r;
        const Clock::time_point now = Clock::now();
        if (now >= start + timeout) return std::nullopt;
        if (now >= next_progress) {
            std::printf("  ... waiting for the operation's result (%llds of at most %llds)\n",
                        static_cast<long long>(std::chrono::duration_cast<std::chrono::seconds>(now - start).count()),
                        static_cast<long long>(timeout.count()));
            std::fflush(stdout);
            next_progress += kProgressEvery;
        }
        if (bus_.dispatch(200) == ubus::kConnectionFailed) return std::nullopt;
    }
}

bool CallOutcome::envelope_ok() const {
    if (!ok()) return false;
    const std::size_t header = reply.find("\"Header\"");
    return header == std::string::npos || reply.find("\"Name\":\"OK\"", header) != std::string::npos;
}

std::string CallOutcome::text(std::string_view key) const {
    ubus::BlobBuf buf;
    if (reply.empty() || !ubus::json_load(buf, reply)) return {};
    return find_text(ubus::AttrList(buf.members()), key);
}

CallOutcome call_quietly(ubus::Connection& bus, const std::string& object, std::string_view method,
                         const std::string& args) {
    CallOutcome out;
    ubus::BlobBuf buf;
    if (!args.empty() && !ubus::json_load(buf, args)) {
        out.status = ubus::kInvalidArgument;
        return out;
    }
    std::uint32_t id = 0;
    out.status = bus.lookup_id(object, id);
    if (out.status == ubus::kOk)
        out.status = bus.invoke(
            id, method, buf.members(), [&](ubus::Bytes members) { out.reply = compact_json(members); },
            kCallTimeoutMs);
    return out;
}

CallOutcome call_and_show(ubus::Connection& bus, const std::string& object, std::string_view method,
                          const std::string& args, const std::string& shown_args) {
    std::printf("\n$ ubus call %s %.*s%s%s%s\n", object.c_str(), static_cast<int>(method.size()), method.data(),
                shown_args.empty() ? "" : " '", shown_args.c_str(), shown_args.empty() ? "" : "'");
    std::fflush(stdout);
    const CallOutcome out = call_quietly(bus, object, method, args);
    if (!out.reply.empty()) std::printf("%s\n", out.reply.c_str());
    std::printf("  -> status %d (%s)\n", out.status, ubus::status_text(out.status).c_str());
    std::fflush(stdout);
    return out;
}

void step_heading(int number, std::string_view what) {
    std::printf("\n=== %d. %.*s\n", number, static_cast<int>(what.size()), what.data());
    std::fflush(stdout);
}

void step_failed(std::string_view why) {
    std::printf("  !! this step failed: %.*s; the walk goes on\n", static_cast<int>(why.size()), why.data());
    std::fflush(stdout);
}

}  // namespace demo

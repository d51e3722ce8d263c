// wait_for <path>...: returns once all these objects exist, or fails after -t seconds.
#include <algorithm>
#include <string>
#include <vector>

#include "cli.hpp"
#include "serve.hpp"

namespace ubus_cli {

namespace {
constexpr ubus::Policy kObjectEvent[] = {{"path", ubus::Type::String}};
}

int cmd_wait_for(Context& cx, Args args) {
    if (args.empty()) return kUsage;
    std::vector<std::string_view> missing(args.begin(), args.end());

    ubus::Loop loop;
    // Listening starts before the lookup, so an object that appears in between is not missed.
    const ubus::AddResult listener =
        cx.bus.listen("ubus.object.add", [&](std::string_view, ubus::Bytes data) {
            const auto event = ubus::parse(kObjectEvent, data);
            if (event[0]) std::erase(missing, event[0].as_string());
            if (missing.empty()) loop.stop();
        });
    if (listener.status != ubus::kOk) return listener.status;
    const int found = cx.bus.lookup_all([&](const ubus::ObjectInfo& obj) { std::erase(missing, obj.path); });
    if (found != ubus::kOk) return found;
    if (missing.empty()) return ubus::kOk;

    const int served = serve(cx.bus, loop, cx.opt.timeout_s * 1000);
    if (missing.empty()) return ubus::kOk;
    // Interrupted before the objects came: not in time either.
    return served == ubus::kOk ? ubus::kTimeout : served;
}

}  // namespace ubus_cli

// monitor: prints a line for every message the broker receives or sends (root only).
#include <cstdio>
#include <string>

#include "cli.hpp"
#include "monitor_line.hpp"
#include "serve.hpp"

namespace ubus_cli {

int cmd_monitor(Context& cx, Args args) {
    if (!args.empty()) return kUsage;
    std::uint32_t wanted_types = 0;  // bit per type; none set: all
    for (const std::string& name : cx.opt.monitor_types) {
        const auto type = message_type_number(name);
        if (!type) {
            std::fprintf(stderr, "Unknown message type '%s'\n", name.c_str());
            return kUsage;
        }
        wanted_types |= 1u << *type;
    }
    const char direction = cx.opt.monitor_direction;

    ubus::Loop loop;
    std::string line;
    cx.bus.on_monitor([&](ubus::Bytes attributes) {
        const auto m = read_monitored(attributes);
        if (!m) return;
        if (wanted_types && (m->type >= 32 || !(wanted_types & (1u << m->type)))) return;
        if ((direction == 'r' && m->sent) || (direction == 't' && !m->sent)) return;
        line = monitor_line(*m);
        line += '\n';
        std::fwrite(line.data(), 1, line.size(), stdout);
        std::fflush(stdout);
    });
    const int added = cx.bus.invoke(ubus::kMonitorObject, "add", {}, nullptr, cx.opt.timeout_s * 1000);
    if (added != ubus::kOk) return added;
    return serve_for_duration(cx, loop);
}

}  // namespace ubus_cli
